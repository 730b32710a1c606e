# 32-bit ARM, hard-float (a gateway's own CPU), with Debian's cross compiler
# (g++-arm-linux-gnueabihf). Programs built for the target run under qemu-user, so the test
# executables can be run on the build machine with ctest:
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake \
#       -DPROV_HOST=OFF -DPROV_BENCH=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(PROV_CROSS_TRIPLE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/ProvCrossDebian.cmake)
