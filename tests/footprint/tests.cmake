# Prints what a store takes and keeps of memory, and fails where a store keeps
# what it does not need.
add_executable(footprint ${CMAKE_CURRENT_LIST_DIR}/footprint.cpp)
target_link_libraries(footprint PRIVATE blobring_options blobring)
add_test(NAME footprint COMMAND footprint ${CMAKE_CURRENT_BINARY_DIR}/footprint_store)
set_tests_properties(footprint PROPERTIES TIMEOUT 300)
