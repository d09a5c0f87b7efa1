# What is installed, used by those who have nothing else. Sanitized libraries
# are not for that.
if(NOT BLOBRING_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME install_prefix
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/installed ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/install_prefix)
  add_test(NAME install_packages
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/packages ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/install_packages)
  set_tests_properties(install_prefix install_packages PROPERTIES
    ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}" TIMEOUT 300)
  blobring_test(NAME two_copies_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/TwoCopiesTest.cpp LIBS ${CMAKE_DL_LIBS})
  target_compile_definitions(two_copies_test PRIVATE BLOBRING_LIBRARY="$<TARGET_FILE:blobring>")
  add_dependencies(two_copies_test blobring)
endif()
