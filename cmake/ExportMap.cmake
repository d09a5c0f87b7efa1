# The linker's version script from the list of exports, which is written as
# nm and c++filt show it, with basic_string<char> and std::size_t for what
# they stand for on this host. No version: nm -D shows the plain names.
set(list ${PROJECT_SOURCE_DIR}/api/exports.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
file(STRINGS ${list} exports)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(size_t "unsigned long")
else()
  set(size_t "unsigned int")
endif()
set(c "")
set(cxx "")
foreach(name IN LISTS exports)
  string(REGEX REPLACE "basic_string<(char16_t|char)>"
         "std::__cxx11::basic_string<\\1, std::char_traits<\\1>, std::allocator<\\1> >" name "${name}")
  string(REPLACE "std::size_t" "${size_t}" name "${name}")
  if(name MATCHES "[(]")
    string(APPEND cxx "    \"${name}\";\n")
  else()
    string(APPEND c "  ${name};\n")
  endif()
endforeach()
set(BLOBRING_EXPORT_MAP ${PROJECT_BINARY_DIR}/exports.map)
file(CONFIGURE OUTPUT ${BLOBRING_EXPORT_MAP} @ONLY
     CONTENT "{\nglobal:\n${c}  extern \"C++\" {\n${cxx}  };\nlocal: *;\n};\n")
