SUMMARY = "Firmware updates of a television's add-on modules"
DESCRIPTION = "The daemon with its hardened systemd unit, its user and its bus policy."

require tarnwick.inc
inherit features_check systemd useradd

TARNWICK_COMPONENT = "daemon"

# The unit lies in /usr/lib/systemd/system.
REQUIRED_DISTRO_FEATURES = "systemd usrmerge"
SYSTEMD_SERVICE:${PN} = "tarnwick.service"

USERADD_PACKAGES = "${PN}"
USERADD_PARAM:${PN} = "--system --user-group --no-create-home --home-dir / --shell /sbin/nologin fwupdate"

FILES:${PN} += "${nonarch_libdir}/sysusers.d ${nonarch_libdir}/tmpfiles.d ${datadir}/dbus-1/system.d"
RDEPENDS:${PN} += "dbus"
