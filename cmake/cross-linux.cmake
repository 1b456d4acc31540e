# What the ARM toolchain files share. They set CMAKE_SYSTEM_PROCESSOR,
# TAVREND_TRIPLET and the emulator; scripts/bootstrap arm|arm64 installs the
# compilers and the libraries of that architecture (Debian multiarch).
#
# The emulator runs without -L: the programs name their own dynamic loader,
# which multiarch installs at the path they ask for. Pointing qemu at a sysroot
# as well mixed two loaders and crashed every program that starts a thread.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TAVREND_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TAVREND_TRIPLET}-g++)

# Headers and libraries come from the multiarch folders (/usr/include,
# /usr/lib/<triplet>), programs from the build machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config sees only this architecture's .pc files, and before them those of
# a development package scripts/bootstrap had to unpack into the build folder
# (cross-deps/) instead of installing.
# The environment is the process's: the compiler checks, which read this file
# again in their own scratch folders, must not move PKG_CONFIG_PATH there.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${TAVREND_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
get_property(tavrend_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT tavrend_in_try_compile)
  set(ENV{PKG_CONFIG_PATH} "${CMAKE_BINARY_DIR}/cross-deps/usr/lib/${TAVREND_TRIPLET}/pkgconfig")
endif()
