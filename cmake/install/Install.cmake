# cmake --install: four components, of which each becomes a package.
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

# The date of the release is that of the newest entry in the changelog.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/changelog)
file(STRINGS packaging/changelog trailers REGEX "^ -- ")
list(GET trailers 0 trailer)
string(REGEX REPLACE ".*, 0?([0-9]+) ([A-Z][a-z]+) ([0-9]+) .*" "\\2 \\1, \\3" DATE "${trailer}")

# Manual pages get the version and the date; each call gets one from the headers.
# Compressed without a name and a time, so that every build makes the same files.
file(REMOVE_RECURSE ${data}/man3)
find_program(GZIP_PROGRAM gzip REQUIRED)
find_program(PYTHON_PROGRAM python3 REQUIRED)
function(compress source target)
  get_filename_component(folder ${target} DIRECTORY)
  file(MAKE_DIRECTORY ${folder})
  execute_process(COMMAND ${GZIP_PROGRAM} -9 -n -c ${source} OUTPUT_FILE ${target} COMMAND_ERROR_IS_FATAL ANY)
endfunction()
configure_file(man/blobring.3.in ${data}/blobring.3 @ONLY)
compress(${data}/blobring.3 ${data}/man3/blobring.3.gz)
set(documented include/blobring/blobring.h include/blobring/host.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${documented} man/calls.py examples/blobs.c)
execute_process(COMMAND ${PYTHON_PROGRAM} man/calls.py ${DATE} ${PROJECT_VERSION} ${data}/man3 examples/blobs.c
  ${documented}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMAND_ERROR_IS_FATAL ANY)
install(DIRECTORY ${data}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)

if(TARGET blobring_tool)
  target_compile_definitions(blobring_tool PRIVATE BLOBRING_DATE="${DATE}")
  # The tool prints its own manual page and completions. A build for another host needs an emulator.
  if(NOT CMAKE_CROSSCOMPILING OR CMAKE_CROSSCOMPILING_EMULATOR)
    add_custom_command(OUTPUT ${data}/blobring.1.gz ${data}/blobring ${data}/_blobring
      COMMAND ${CMAKE_COMMAND} -E make_directory ${data}
      COMMAND blobring_tool generate manual > ${data}/blobring.1
      COMMAND ${GZIP_PROGRAM} -9 -n -f ${data}/blobring.1
      COMMAND blobring_tool generate bash > ${data}/blobring
      COMMAND blobring_tool generate zsh > ${data}/_blobring
      DEPENDS blobring_tool VERBATIM)
    add_custom_target(blobring_texts ALL DEPENDS ${data}/blobring.1.gz)
    install(FILES ${data}/blobring.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    install(FILES ${data}/blobring DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
    install(FILES ${data}/_blobring DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool)
  endif()
endif()

install(DIRECTORY python/blobring DESTINATION lib/python3/dist-packages COMPONENT python
  PATTERN __pycache__ EXCLUDE)

# What Debian wants of each package, and the documents; the examples go with the headers.
compress(${PROJECT_SOURCE_DIR}/packaging/changelog ${data}/changelog.gz)
function(install_documents component package)
  install(FILES packaging/copyright ${data}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT ${component})
  list(TRANSFORM ARGN REPLACE "(.+)" "docs/\\1.md" OUTPUT_VARIABLE documents)
  install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()
install_documents(runtime libblobring1)
install_documents(development libblobring-dev embedding architecture format decisions reliability performance footprint)
install_documents(python python3-blobring python)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libblobring-dev COMPONENT development)
if(TARGET blobring_tool)
  install_documents(tool blobring tour tool json salvage fleet)
endif()
