# Linux on 64-bit ARM, from Linux x64. Test programs run under QEMU's emulation of user programs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Return addresses are signed with QEMU's own algorithm: emulating the architecture's makes each call expensive.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -cpu max,pauth-impdef=on -L /usr/aarch64-linux-gnu)
