# What is installed, used by those who have nothing else. Sanitized libraries
# are not for that.
if(NOT BLOBRING_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME install_prefix
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/installed ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/install_prefix)
  add_test(NAME install_packages
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/packages ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_BINARY_DIR}/install_packages)
  set_tests_properties(install_prefix install_packages PROPERTIES
    ENVIRONMENT "CC=${CMAKE_C_COMPILER};CXX=${CMAKE_CXX_COMPILER}" TIMEOUT 300)
  # The loader would merge these between two copies of the library in a process.
  add_test(NAME no_unique_symbols COMMAND sh -c "! ${CMAKE_NM} -D $<TARGET_FILE:blobring> | grep ' u '")
endif()
