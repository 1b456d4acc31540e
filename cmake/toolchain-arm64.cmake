# arm64: Debian's cross compiler and its arm64 libraries; programs built here
# run under qemu-aarch64.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TAVREND_TRIPLET aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
