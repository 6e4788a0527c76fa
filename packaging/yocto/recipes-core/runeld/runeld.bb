# SPDX-License-Identifier: Apache-2.0
# Tried without BitBake: its assignments are parsed, its checksums compared with the release, and its tasks
# run in a stub environment with the options below. Not tried in a build of Yocto.
SUMMARY = "Device daemon of an update manager"
DESCRIPTION = "Executes the tasks of its master (files, programs, reboot) as root, and relays the XML \
clauses of a local agent. It has no authentication and no encryption: restrict ports 5111 and 5112."
SECTION = "admin"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=@LICENSE_MD5@"

SRC_URI = "@SITE@/runeld-${PV}.tar.gz"
SRC_URI[sha256sum] = "@SHA256@"

inherit cmake systemd update-rc.d

# The daemon alone: no client library, no runelctl, no tests, no documents.
EXTRA_OECMAKE = "-DRUNELD_MINIMAL=ON -DRUNELD_UNIT_DIR=${systemd_system_unitdir} \
-DRUNELD_HELPER_DIR=${nonarch_libdir}/runeld"

# Whether the service starts at boot. Restrict the ports before you set it to 1, for example in local.conf.
RUNELD_ENABLE ?= "0"
# For example "-i 192.0.2.7" for a master with this address. The default master is 127.0.0.1.
RUNELD_OPTIONS ?= ""

SYSTEMD_SERVICE:${PN} = "runeld.service"
SYSTEMD_AUTO_ENABLE = "${@'enable' if d.getVar('RUNELD_ENABLE') == '1' else 'disable'}"
INITSCRIPT_NAME = "runeld"
INITSCRIPT_PARAMS = "${@'defaults 95 05' if d.getVar('RUNELD_ENABLE') == '1' else 'stop 05 0 1 6 .'}"

# The class systemd removes what the init system of the image does not use.
do_install:append() {
	echo 'RUNELD_OPTIONS="${RUNELD_OPTIONS}"' >>${D}${sysconfdir}/default/runeld
	install -D -m 0755 ${S}/packaging/sysvinit/runeld ${D}${sysconfdir}/init.d/runeld
}

FILES:${PN} += "${nonarch_libdir}/runeld"
CONFFILES:${PN} = "${sysconfdir}/default/runeld"
