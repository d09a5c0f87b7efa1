# 64-bit ARM, little-endian.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(BLOBRING_TRIPLET aarch64-linux-gnu)
set(BLOBRING_DEBIAN_ARCHITECTURE arm64)
set(BLOBRING_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
