# What reads a disk, given hostile files. In every build each target runs over
# its corpus and 20,000 inputs made of it, always the same; with BLOBRING_FUZZ
# there are libFuzzer programs as well (clang alone; see scripts/fuzz).
option(BLOBRING_FUZZ "Build the libFuzzer programs" OFF)

set(fuzz_dir ${CMAKE_CURRENT_LIST_DIR})
if(BLOBRING_FUZZ)  # the search goes by what is reached in the store, not in digest, machine and model
  target_compile_options(blobring_store PRIVATE -fsanitize=fuzzer-no-link)
endif()

add_library(blobring_fuzz_life OBJECT ${fuzz_dir}/FileModel.cpp ${fuzz_dir}/StoreLife.cpp ${fuzz_dir}/RecordMutator.cpp)
target_link_libraries(blobring_fuzz_life PUBLIC blobring_options GTest::gtest)
add_library(blobring_fuzz_records OBJECT ${fuzz_dir}/RecordInput.cpp)
target_link_libraries(blobring_fuzz_records PUBLIC blobring_options)

# The mutator makes lengths that only a 64-bit size_t adds up; elsewhere the
# corpus alone is replayed.
set(fuzz_executions 20000)
if(CMAKE_SIZEOF_VOID_P LESS 8)
  set(fuzz_executions 0)
endif()

function(blobring_fuzz_target name source)
  set(libs blobring_options blobring_fuzz_life ${ARGN} blobring_store blobring_md5 blobring_sim blobring_opened_store
           GTest::gtest)
  add_executable(${name}_replay ${fuzz_dir}/${source} ${fuzz_dir}/ReplayMain.cpp)
  target_link_libraries(${name}_replay PRIVATE ${libs})
  string(REPLACE "_fuzz" "" corpus ${name})
  add_test(NAME ${name} COMMAND ${name}_replay ${fuzz_dir}/corpus/${corpus} ${fuzz_executions})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  if(BLOBRING_FUZZ)
    add_executable(${name} ${fuzz_dir}/${source})
    target_link_libraries(${name} PRIVATE ${libs})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  endif()
endfunction()

blobring_fuzz_target(journal_fuzz JournalFuzz.cpp blobring_fuzz_records)
blobring_fuzz_target(pack_fuzz PackFuzz.cpp blobring_fuzz_records)
blobring_fuzz_target(checksum_fuzz ChecksumFuzz.cpp)

blobring_test(NAME fuzz_size_test SOURCES ${fuzz_dir}/SizeTest.cpp
  LIBS blobring_fuzz_life blobring_store blobring_md5 blobring_sim blobring_opened_store)
