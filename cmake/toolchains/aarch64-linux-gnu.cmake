# 64-bit ARM with Debian's cross compiler (g++-aarch64-linux-gnu).
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
#       -DPROV_HOST=OFF -DPROV_TESTS=OFF -DPROV_BENCH=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(PROV_CROSS_TRIPLE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/ProvCrossDebian.cmake)
