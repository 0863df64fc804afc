# cmake --toolchain: ARM with 32 bits, on a Debian that has crossbuild-essential-armhf and libraries of armhf.
set(triplet arm-linux-gnueabihf)
set(processor armv7l)
set(emulator qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
