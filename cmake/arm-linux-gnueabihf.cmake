# Cross build for 32-bit little-endian ARM Linux (hard float), the library's
# target, with Debian's arm-linux-gnueabihf toolchain. Test binaries and the
# host tool run on the build machine through qemu-arm, with the ARM C and
# C++ runtimes taken from the cross sysroot:
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(QZFS_ARM_TRIPLE arm-linux-gnueabihf)
set(QZFS_ARM_SYSROOT /usr/${QZFS_ARM_TRIPLE})

set(CMAKE_C_COMPILER ${QZFS_ARM_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QZFS_ARM_TRIPLE}-g++)

set(CMAKE_FIND_ROOT_PATH ${QZFS_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# gtest_discover_tests and ctest start every test binary through this.
find_program(QZFS_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QZFS_QEMU_ARM} -L ${QZFS_ARM_SYSROOT})

# GCC 7.1 changed how some aggregates are passed on ARM and notes every such
# call; all of this code is built by one compiler, so the note says nothing.
set(CMAKE_C_FLAGS_INIT -Wno-psabi)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
