# Cross build for AArch64 Linux (glibc) with Debian's aarch64-linux-gnu
# compilers; tests run under qemu-aarch64 from Debian's qemu-user.
#   cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CFGFILE_TARGET_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${CFGFILE_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${CFGFILE_TARGET_TRIPLE}-g++)
set(CMAKE_NM ${CFGFILE_TARGET_TRIPLE}-nm)
set(CMAKE_OBJDUMP ${CFGFILE_TARGET_TRIPLE}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${CFGFILE_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs run through the emulator, with the target's libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${CFGFILE_TARGET_TRIPLE})
