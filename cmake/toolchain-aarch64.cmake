# Cross tool chain for the AArch64 board: Debian's aarch64-linux-gnu compilers and sysroot, with
# qemu-user running the test programs so that ctest works on the build machine unchanged.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(S2E_CROSS_TRIPLE aarch64-linux-gnu)
set(S2E_CROSS_SYSROOT /usr/${S2E_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${S2E_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${S2E_CROSS_TRIPLE}-g++)

# Debian's cross packages put the target's headers and libraries under /usr/aarch64-linux-gnu;
# libraries and headers come only from there, programs (cmake helpers, shells) from the host.
set(CMAKE_FIND_ROOT_PATH ${S2E_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L points the emulator's dynamic loader at the target's libc and libstdc++.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${S2E_CROSS_SYSROOT})
