# What both device toolchains share: Debian installs a cross compiler's C library and headers
# under /usr/<triple>, and nothing else for the target. Libraries and packages are looked up
# there only, so that none of the build machine's x86-64 libraries is taken by mistake; programs
# (the generators, pkg-config) still come from the build machine.
set(CMAKE_C_COMPILER ${PROV_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PROV_CROSS_TRIPLE}-g++)
set(CMAKE_STRIP ${PROV_CROSS_TRIPLE}-strip CACHE FILEPATH "")
set(CMAKE_FIND_ROOT_PATH /usr/${PROV_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# qemu-user runs the target's programs (tests, GoogleTest's discovery) with the target's C
# library from the same place. A program they start that was built for the build machine (tar,
# busybox, /bin/true) is run by the kernel itself.
string(REGEX REPLACE "^(arm|aarch64).*" "\\1" _prov_qemu_arch ${PROV_CROSS_TRIPLE})
find_program(PROV_QEMU qemu-${_prov_qemu_arch})
if(PROV_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PROV_QEMU} -L /usr/${PROV_CROSS_TRIPLE})
endif()
