add_library(blobring_opened_store OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/../support/JournalBytes.cpp
  ${CMAKE_CURRENT_LIST_DIR}/../support/OpenedStore.cpp)
target_link_libraries(blobring_opened_store PUBLIC blobring_options GTest::gtest)

file(GLOB BLOBRING_STORE_TESTS CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
blobring_test(NAME store_test SOURCES ${BLOBRING_STORE_TESTS}
  LIBS blobring_store blobring_md5 blobring_sim blobring_opened_store)
