# Debian arm64: 64-bit little-endian ARM (aarch64-linux-gnu). See debian-cross.cmake.
set(PKEY_CROSS_TRIPLET aarch64-linux-gnu)
set(PKEY_CROSS_PROCESSOR aarch64)
set(PKEY_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
