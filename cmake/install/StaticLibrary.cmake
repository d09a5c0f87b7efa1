# libblobring.a: all objects linked into one, in which only the flat calls have
# names. A program that links it statically keeps every other name for itself,
# those of the platform's calls and of the store's classes included. `cur` is
# not there either: there can be no variable of that name.
set(combined ${CMAKE_CURRENT_BINARY_DIR}/blobring_static.o)
set(parts blobring_store blobring_format blobring_md5 blobring_posix)
set(objects ${parts})
list(TRANSFORM objects REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
add_custom_command(
  OUTPUT ${combined}
  # Groups are resolved now: once their names are local, the linker could not
  # tell that another object has the same.
  COMMAND ${CMAKE_CXX_COMPILER} -r -nostdlib -Wl,--force-group-allocation -o ${combined}.whole
          ${objects}
  COMMAND ${CMAKE_OBJCOPY} --wildcard --keep-global-symbol=BC[A-Z]* --keep-global-symbol=BlobringHost*
          --keep-global-symbol=g_BlobControllerRingBuffer --keep-global-symbol=g_TraceDeviceRaw --keep-global-symbol=_Z10BCStoreInt*
          --keep-global-symbol=_Z15FilterException*
          ${combined}.whole ${combined}
  BYPRODUCTS ${combined}.whole
  DEPENDS ${objects}
  COMMAND_EXPAND_LISTS VERBATIM)
set_source_files_properties(${combined} PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
add_library(blobring_static STATIC ${combined})
# Makefiles build a target's objects by that target's rules alone.
add_dependencies(blobring_static ${parts})
set_target_properties(blobring_static PROPERTIES OUTPUT_NAME blobring LINKER_LANGUAGE CXX)
target_include_directories(blobring_static PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
