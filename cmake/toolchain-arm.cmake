# 32-bit arm (hard float): Debian's cross compiler and its armhf libraries;
# programs built here run under qemu-arm.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(TAVREND_TRIPLET arm-linux-gnueabihf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
# GCC notes that it passes some arguments as GCC 7.1 began to.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
