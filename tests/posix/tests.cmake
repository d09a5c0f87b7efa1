blobring_test(NAME posix_files
  SOURCES posix/FilesTest.cpp LIBS blobring_posix)
blobring_test(NAME posix_memory SOURCES posix/MemoryTest.cpp LIBS blobring_posix)
blobring_test(NAME posix_diagnostics SOURCES posix/DiagnosticsTest.cpp LIBS blobring_posix)

# The kernel's calls are replaced in this program alone, by the linker; the
# objects under test are the same. The 64s are what <unistd.h> makes of pread
# and pwrite with _FILE_OFFSET_BITS=64.
blobring_test(NAME posix_faults
  SOURCES posix/FaultsTest.cpp posix/FailingCalls.cpp LIBS blobring_posix)
foreach(call fdatasync fsync pread pread64 pwrite pwrite64 rename renameat2 posix_fadvise posix_fadvise64)
  target_link_options(posix_faults PRIVATE -Wl,--wrap=${call})
endforeach()
