# cpack -G DEB: libblobring1 (runtime), libblobring-dev (development), blobring
# (the tool) and python3-blobring (python), each from its component.
set(CPACK_PACKAGE_NAME blobring)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Blobring")
# Whoever gives the packages to others gives an address as well.
set(CPACK_PACKAGE_CONTACT "Blobring developers <blobring@localhost>" CACHE STRING "Maintainer of the packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL runtime development python)
if(TARGET blobring_tool)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libblobring1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING)
  # This machine has no packages of that host to take the dependencies from:
  # they are what the versions of the symbols ask for.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${BLOBRING_DEBIAN_ARCHITECTURE})
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 11)")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
# Programs built against this version need at least this one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "content-addressed store of blobs
A shared library with a flat C interface that keeps blobs in a store on a
local file system and gives them back by their MD5 digest. Commits survive
power cuts, and every byte is checked.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libblobring-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libblobring1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "content-addressed store of blobs, development files
Headers, the C++ wrapper, the static library, and what CMake and pkg-config
need to find them.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME blobring)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ${CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS})
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libblobring1 (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "content-addressed store of blobs, command line tool
Makes, fills, checks, repacks and exports stores of blobs, and salvages what
can be read of damaged ones.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-blobring)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.11), libblobring1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/python/postinst
                                              ${PROJECT_SOURCE_DIR}/packaging/python/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "content-addressed store of blobs, for Python
A package over the C calls of libblobring1: stores as mappings and context
managers, transactions, typed errors, type hints.")

include(CPack)
