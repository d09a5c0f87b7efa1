# Where things go. On Debian, libraries go into the directory of their
# architecture under any prefix; its linker, compilers and pkg-config look there.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Where libraries go")
endif()
include(GNUInstallDirs)
# Of whatever does not name its component: the command line tool.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tool)
