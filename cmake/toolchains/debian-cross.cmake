# Cross build for a Debian architecture: Debian's cross compiler
# (g++-<triplet>), the target's OpenSSL, SQLite and GoogleTest from a sysroot
# that scripts/cross-deps.sh fills, and qemu-user to run the target's programs
# (tests, test discovery) on this machine. The files beside this one name the
# architecture and include this one; the sysroot is given as
#   -DPKEY_SYSROOT=<dir>   (or the PKEY_SYSROOT environment variable).
# The compiler keeps its own C library and headers (/usr/<triplet>); the
# sysroot adds the libraries above, and the target's loader, C and C++
# libraries for running under the emulator.

if(NOT PKEY_SYSROOT AND DEFINED ENV{PKEY_SYSROOT})
  set(PKEY_SYSROOT "$ENV{PKEY_SYSROOT}")
endif()
if(NOT PKEY_SYSROOT OR NOT EXISTS "${PKEY_SYSROOT}/.pkey-sysroot")
  message(FATAL_ERROR "No sysroot for ${PKEY_CROSS_TRIPLET}: fill one with scripts/cross-deps.sh "
                      "and give it as -DPKEY_SYSROOT=<dir> (make test-cross does both)")
endif()
# try_compile projects read this file again and need the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PKEY_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${PKEY_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${PKEY_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${PKEY_CROSS_TRIPLET}-g++)
# Debian's multiarch layout: usr/lib/<triplet>, usr/include/<triplet>.
set(CMAKE_LIBRARY_ARCHITECTURE ${PKEY_CROSS_TRIPLET})

# Libraries, headers and CMake packages from the sysroot only; programs
# (the emulator, nm) from this machine.
set(CMAKE_FIND_ROOT_PATH "${PKEY_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${PKEY_SYSROOT}/usr/lib/${PKEY_CROSS_TRIPLET}/pkgconfig:${PKEY_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${PKEY_SYSROOT}")

# OpenSSL's configuration headers (openssl/opensslconf.h, configuration.h)
# live in the multiarch include directory.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${PKEY_SYSROOT}/usr/include/${PKEY_CROSS_TRIPLET}")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${PKEY_SYSROOT}/usr/include/${PKEY_CROSS_TRIPLET}")
# The linker finds what libcrypto and libsqlite3 need in the sysroot too.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${PKEY_SYSROOT}/usr/lib/${PKEY_CROSS_TRIPLET}")
endforeach()

# Target programs run under qemu-user, which takes every file the target's
# loader opens (libc, libssl, ...) from the sysroot first.
find_program(PKEY_QEMU ${PKEY_CROSS_QEMU} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${PKEY_QEMU};-L;${PKEY_SYSROOT}")
