SUMMARY = "Interface of a control library to the firmware-update daemon"
DESCRIPTION = "The header that a control library is written against, with its CMake package and pkg-config file."

require tarnwick.inc

TARNWICK_COMPONENT = "sdk"
# There is nothing to compile, and nothing to run: all of it is in the package for development.
do_compile[noexec] = "1"
ALLOW_EMPTY:${PN} = "1"
