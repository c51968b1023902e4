# Cross build for the board's processor (32-bit ARM, hard float) with Debian's
# g++-arm-linux-gnueabihf. Test programs run under qemu-arm with the cross sysroot, so
# gtest_discover_tests and ctest work on the build machine; the tests start the programs of the
# build under it too. The module and e2e tests want a native fsusim (scripts/test.sh armhf):
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#     -DFSU_TEST_HOST_FSUSIM=$PWD/build-armhf-host/fsusim
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(FSU_ARMHF_TRIPLE arm-linux-gnueabihf)
set(FSU_ARMHF_SYSROOT /usr/${FSU_ARMHF_TRIPLE})

set(CMAKE_C_COMPILER ${FSU_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${FSU_ARMHF_TRIPLE}-g++)

# Libraries and packages come from the cross sysroot only, never from the host.
set(CMAKE_FIND_ROOT_PATH ${FSU_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${FSU_ARMHF_SYSROOT})
