# The calls for embedders and the C++ wrapper, on the simulated machine.
blobring_test(NAME wrapper_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/EmbedderCallsTest.cpp ${CMAKE_CURRENT_LIST_DIR}/OpeningTest.cpp ${CMAKE_CURRENT_LIST_DIR}/StoreTest.cpp
  LIBS blobring_store blobring_md5 blobring_sim blobring_opened_store)
# On real files and threads; .ci/run has it built with ThreadSanitizer too.
blobring_test(NAME threads_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/ThreadsTest.cpp
  LIBS blobring_store blobring_md5 blobring_posix)
