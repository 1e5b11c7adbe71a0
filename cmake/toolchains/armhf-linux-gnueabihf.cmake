# Cross build for 32-bit Arm Linux with NEON (armhf), using Debian's
# arm-linux-gnueabihf cross compiler. Test programs run under qemu-arm, which
# finds the target's loader and libraries under /usr/arm-linux-gnueabihf, so
# gtest_discover_tests and ctest work unchanged.
#
#   cmake -S . -B build-armhf -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7-a)

set(VQ_TL_CROSS_TRIPLE arm-linux-gnueabihf)
set(VQ_TL_CROSS_ROOT /usr/${VQ_TL_CROSS_TRIPLE})
set(CMAKE_C_COMPILER ${VQ_TL_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VQ_TL_CROSS_TRIPLE}-g++)

# The phones' baseline: ARMv7-A, NEON, hard-float calling convention.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")

set(CMAKE_FIND_ROOT_PATH ${VQ_TL_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(VQ_TL_QEMU_ARM qemu-arm)
if(VQ_TL_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VQ_TL_QEMU_ARM} -L ${VQ_TL_CROSS_ROOT})
endif()

# The host's GoogleTest is built for the host: build it from its sources for
# the target. Google Benchmark has no target build here, so benchmarks are off.
# Cache defaults only: -D on the command line still wins.
set(VQ_TL_GTEST_FROM_SOURCE ON CACHE BOOL "Build GoogleTest from /usr/src/googletest (cross builds)")
set(VQ_TL_BUILD_BENCH OFF CACHE BOOL "Build the Google Benchmark programs")
