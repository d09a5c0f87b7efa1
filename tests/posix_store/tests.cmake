blobring_test(NAME posix_store_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/PosixStoreTest.cpp
  LIBS blobring_store blobring_md5 blobring_posix)
