# Linux on 64-bit ARM, from Linux x64. Test programs run under QEMU's emulation of user programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# QEMU signs return addresses with its own algorithm, because emulating that of the architecture makes calls expensive.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -cpu max,pauth-impdef=on -L /usr/aarch64-linux-gnu)
