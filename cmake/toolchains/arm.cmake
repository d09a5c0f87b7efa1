# The device: 32-bit ARM (ARMv7, hard float), little-endian.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(BLOBRING_TRIPLET arm-linux-gnueabihf)
set(BLOBRING_DEBIAN_ARCHITECTURE armhf)
set(BLOBRING_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
# Notes that GCC 7.1 changed how a class is passed, in code that nothing else
# is linked with.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
