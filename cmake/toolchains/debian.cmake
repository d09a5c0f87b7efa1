# What the toolchain files of this folder share: Debian's cross compiler for
# BLOBRING_TRIPLET, and BLOBRING_QEMU to run what it builds. Libraries and
# headers that CMake looks for come from the target alone; the compiler itself
# also searches /usr/include, where Boost is, headers only.
#
# BLOBRING_TARGET_ROOT, when given, is a folder into which packages of the
# target were unpacked: scripts/cross-test puts the tests' libcrypto there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${BLOBRING_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${BLOBRING_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${BLOBRING_TRIPLET})
set(CMAKE_CROSSCOMPILING_EMULATOR ${BLOBRING_QEMU};-L;/usr/${BLOBRING_TRIPLET})

set(CMAKE_FIND_ROOT_PATH ${BLOBRING_TARGET_ROOT} /usr/${BLOBRING_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BLOBRING_TARGET_ROOT)
