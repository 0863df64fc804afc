# cmake --toolchain: ARM with 64 bits, on a Debian that has crossbuild-essential-arm64 and libraries of arm64.
set(triplet aarch64-linux-gnu)
set(processor aarch64)
set(emulator qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
