SUMMARY = "Technician's command for the firmware of a television's modules"
DESCRIPTION = "fwctl tells what is installed and pending, updates modules, and installs encrypted images from a stick."

require tarnwick.inc
inherit bash-completion

# The daemon brings the platform library that both are linked with, where the television has none of its own.
DEPENDS += "cli11 squashfs-tools-ng tarnwick"

TARNWICK_COMPONENT = "fwctl"
EXTRA_OECMAKE += "-DTARNWICK_FWCTL=ON"
OECMAKE_TARGET_COMPILE = "fwctl"

RDEPENDS:${PN} += "tarnwick"
