# A toolchain for 64-bit ARM on Debian, with its packages of that architecture beside the machine's own:
#   crossbuild-essential-arm64, qemu-user-static and those that are linked, such as libicu-dev:arm64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Debian keeps each architecture's libraries in a folder of its own below /usr/lib, and the headers of all in /usr/include.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
