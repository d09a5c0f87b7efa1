# Hostile packs and journals, made of the input's bytes. Every build runs
# 20,000 of them, always the same; with BLOBRING_FUZZ there is a libFuzzer
# program as well (clang alone; see scripts/fuzz).
option(BLOBRING_FUZZ "Build the libFuzzer program" OFF)

set(fuzz_dir ${CMAKE_CURRENT_LIST_DIR})
add_library(blobring_fuzz_life OBJECT ${fuzz_dir}/FileModel.cpp ${fuzz_dir}/StoreLife.cpp)
target_link_libraries(blobring_fuzz_life PUBLIC blobring_options GTest::gtest)
set(fuzz_libs blobring_fuzz_life blobring_store blobring_md5 blobring_sim blobring_opened_store)

add_executable(store_fuzz_replay ${fuzz_dir}/StoreFuzz.cpp)
target_link_libraries(store_fuzz_replay PRIVATE blobring_options ${fuzz_libs} GTest::gtest)
add_test(NAME store_fuzz COMMAND store_fuzz_replay 20000)
set_tests_properties(store_fuzz PROPERTIES TIMEOUT 300)

if(BLOBRING_FUZZ)  # the search goes by what is reached in the store, not in digest, machine and model
  target_compile_options(blobring_store PRIVATE -fsanitize=fuzzer-no-link)
  add_executable(store_fuzz ${fuzz_dir}/StoreFuzz.cpp)
  target_compile_definitions(store_fuzz PRIVATE BLOBRING_FUZZ)
  target_link_libraries(store_fuzz PRIVATE blobring_options ${fuzz_libs} GTest::gtest)
  target_link_options(store_fuzz PRIVATE -fsanitize=fuzzer)
endif()

blobring_test(NAME fuzz_size_test SOURCES ${fuzz_dir}/SizeTest.cpp LIBS ${fuzz_libs})
