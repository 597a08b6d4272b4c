# Debian armhf: 32-bit little-endian ARM, hard float (arm-linux-gnueabihf). See debian-cross.cmake.
set(PKEY_CROSS_TRIPLET arm-linux-gnueabihf)
set(PKEY_CROSS_PROCESSOR arm)
set(PKEY_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
