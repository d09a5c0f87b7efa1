# IBM Z: 64 bits, big-endian.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(BLOBRING_TRIPLET s390x-linux-gnu)
set(BLOBRING_DEBIAN_ARCHITECTURE s390x)
set(BLOBRING_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
