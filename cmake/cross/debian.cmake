# For the toolchain files beside this one: Debian's compilers and development packages for another machine, of which
# `triplet` is the compilers' name, `processor` the kernel's, and `emulator` runs its programs here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${processor})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(PKG_CONFIG_EXECUTABLE ${triplet}-pkg-config)
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})
