# What examples/ shows, run as it stands there.
if(TARGET blobring AND NOT CMAKE_CROSSCOMPILING AND NOT BLOBRING_SANITIZE)
  add_executable(trace_example ${PROJECT_SOURCE_DIR}/examples/trace.c)
  set_target_properties(trace_example PROPERTIES C_STANDARD 11)
  target_link_libraries(trace_example PRIVATE blobring_options blobring)
  add_test(NAME examples COMMAND ${CMAKE_CURRENT_LIST_DIR}/run
    ${PROJECT_SOURCE_DIR} $<TARGET_FILE:blobring> $<TARGET_FILE:trace_example>)
  # The program that docs/embedding.md shows.
  file(READ ${PROJECT_SOURCE_DIR}/docs/embedding.md document)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/embedding.md)
  string(REGEX MATCH "```cpp\n([^`]*)```" unused "${document}")
  file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/embedding_example.cpp CONTENT "${CMAKE_MATCH_1}" @ONLY)
  add_executable(embedding_example ${CMAKE_CURRENT_BINARY_DIR}/embedding_example.cpp)
  target_link_libraries(embedding_example PRIVATE blobring_options blobring)
  file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/embedding_store)
  add_test(NAME embedding_example COMMAND embedding_example WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/embedding_store)
  set_tests_properties(embedding_example PROPERTIES
    PASS_REGULAR_EXPRESSION "5d41402abc4b2a76b9719d911017c592 5\n7d793037a0760186574b0282f2f435e7 5\nhello")
  if(BLOBRING_PROBES)
    add_test(NAME probes COMMAND ${CMAKE_CURRENT_LIST_DIR}/probes
      $<TARGET_FILE:blobring> ${PROJECT_SOURCE_DIR}/examples/probes.bt)
  endif()
endif()
