# Not a test of every run: scripts/soak runs it for an hour.
add_executable(soak ${CMAKE_CURRENT_LIST_DIR}/soak.cpp)
target_link_libraries(soak PRIVATE blobring_options blobring_store blobring_md5 blobring_posix)
add_test(NAME soak_brief COMMAND soak 5)
