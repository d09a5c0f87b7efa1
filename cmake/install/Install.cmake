# cmake --install: three components, of which each becomes a package.
include(CMakePackageConfigHelpers)

set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/Blobring)
set(data ${CMAKE_CURRENT_BINARY_DIR}/install)

install(TARGETS blobring EXPORT BlobringTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS blobring_static EXPORT BlobringTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY include/blobring DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# find_package(Blobring): Blobring::blobring and Blobring::blobring_static.
install(EXPORT BlobringTargets NAMESPACE Blobring:: DESTINATION ${package_directory} COMPONENT development)
write_basic_package_version_file(${data}/BlobringConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/install/BlobringConfig.cmake ${data}/BlobringConfigVersion.cmake
  DESTINATION ${package_directory} COMPONENT development)

# The prefix is known only now, when it is installed.
install(CODE "
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/cmake/install/blobring.pc.in\" \"${data}/blobring.pc\" @ONLY)
  file(INSTALL \"${data}/blobring.pc\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")
" COMPONENT development)

# Manual pages get the version; every call leads to the page of the library.
set(DATE "2024-06-01")
foreach(page blobring.1 blobring.3)
  configure_file(man/${page}.in ${data}/${page} @ONLY)
endforeach()
install(FILES ${data}/blobring.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
file(STRINGS tests/exports/exports.txt calls REGEX "^BC[A-Za-z0-9]*$")
foreach(call ${calls})
  file(WRITE ${data}/man3/${call}.3 ".so man3/blobring.3\n")
endforeach()
install(DIRECTORY ${data}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)

if(TARGET blobring_tool)
  install(FILES ${data}/blobring.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
  install(FILES completions/blobring DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
endif()
