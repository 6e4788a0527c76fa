# SPDX-License-Identifier: Apache-2.0
################################################################################
#
# runeld
#
# Tried with a stub of Buildroot's cmake-package: download, checksum, configure,
# build and installation of both init systems. Not tried with Buildroot itself.
#
################################################################################

RUNELD_VERSION = @VERSION@
RUNELD_SOURCE = runeld-$(RUNELD_VERSION).tar.gz
RUNELD_SITE = @SITE@
RUNELD_LICENSE = Apache-2.0
RUNELD_LICENSE_FILES = LICENSE
RUNELD_SUPPORTS_IN_SOURCE_BUILD = NO
# The daemon alone: no client library, no runelctl, no tests, no documents.
RUNELD_CONF_OPTS = -DRUNELD_MINIMAL=ON -DCMAKE_INSTALL_SYSCONFDIR=/etc \
	-DRUNELD_UNIT_DIR=/usr/lib/systemd/system

define RUNELD_INSTALL_OPTIONS
	echo 'RUNELD_OPTIONS=$(BR2_PACKAGE_RUNELD_OPTIONS)' >> \
		$(TARGET_DIR)/etc/default/runeld
endef
RUNELD_POST_INSTALL_TARGET_HOOKS += RUNELD_INSTALL_OPTIONS

# At boot, rcS runs the scripts whose names begin with S. Without "start at boot",
# the script is there for an operator.
ifeq ($(BR2_PACKAGE_RUNELD_ENABLE),y)
define RUNELD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/runeld \
		$(TARGET_DIR)/etc/init.d/S95runeld
endef
else
define RUNELD_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/runeld \
		$(TARGET_DIR)/etc/init.d/runeld
endef
endif

# CMake installs the unit. Buildroot enables all units that no preset disables.
ifneq ($(BR2_PACKAGE_RUNELD_ENABLE),y)
define RUNELD_INSTALL_INIT_SYSTEMD
	$(INSTALL) -d $(TARGET_DIR)/usr/lib/systemd/system-preset
	echo 'disable runeld.service' > \
		$(TARGET_DIR)/usr/lib/systemd/system-preset/50-runeld.preset
endef
endif

$(eval $(cmake-package))
