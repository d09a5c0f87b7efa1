add_test(NAME exports
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/compare $<TARGET_FILE:blobring> ${CMAKE_CURRENT_LIST_DIR}/exports.txt ${CMAKE_NM})

# Of x86-64 and g++, as scripts/check-abi builds it, where its tools are.
find_program(ABIDIFF_PROGRAM abidiff)
if(ABIDIFF_PROGRAM AND CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT CMAKE_CROSSCOMPILING AND NOT BLOBRING_SANITIZE)
  add_test(NAME abi COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-abi)
  set_tests_properties(abi PROPERTIES TIMEOUT 600)
endif()
