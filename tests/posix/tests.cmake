blobring_test(NAME posix_files SOURCES posix/FilesTest.cpp LIBS blobring_posix)
blobring_test(NAME posix_host SOURCES posix/HostTest.cpp LIBS blobring_posix ${CMAKE_DL_LIBS})
target_compile_definitions(posix_host PRIVATE BLOBRING_LIBRARY="$<TARGET_FILE:blobring>")
add_dependencies(posix_host blobring)
# It asks for more memory than there is; the sanitizer is to refuse, not to abort.
set_tests_properties(posix_host PROPERTIES ENVIRONMENT ASAN_OPTIONS=allocator_may_return_null=1)

# The kernel's calls are replaced in this program alone, by the linker; the
# objects under test are the same. The 64s are what <unistd.h> makes of pread
# and pwrite with _FILE_OFFSET_BITS=64.
blobring_test(NAME posix_faults SOURCES posix/FaultsTest.cpp LIBS blobring_posix)
foreach(call fdatasync fsync pread64 pwrite64 renameat2 posix_fadvise64)
  target_link_options(posix_faults PRIVATE -Wl,--wrap=${call})
endforeach()
