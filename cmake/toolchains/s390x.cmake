# Debian s390x: 64-bit big-endian IBM Z (s390x-linux-gnu). See debian-cross.cmake.
set(PKEY_CROSS_TRIPLET s390x-linux-gnu)
set(PKEY_CROSS_PROCESSOR s390x)
set(PKEY_CROSS_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
