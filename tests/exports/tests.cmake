add_test(NAME exports
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/compare $<TARGET_FILE:blobring> ${CMAKE_CURRENT_LIST_DIR}/exports.txt ${CMAKE_NM})
