# SPDX-License-Identifier: Apache-2.0
# A stub of Buildroot for one package that uses cmake-package, in an external tree: download from a directory,
# checksum, unpacking, configuration, build, installation with the init system of the configuration, hooks.
#
#   make -f buildroot.mk BR2_EXTERNAL_RUNELD_PATH=TREE OUTPUT=DIRECTORY [BR2_...=...] target|show
#
# Each step of a package is a stamp in its directory, so that $(@D) in the commands of a package is that
# directory, as in Buildroot.
BUILD_DIR = $(OUTPUT)/build
TARGET_DIR = $(OUTPUT)/target
DL_DIR = $(OUTPUT)/dl
INSTALL = install
BR2_PACKAGE_RUNELD = y
BR2_PACKAGE_RUNELD_OPTIONS ?= ""

qstrip = $(strip $(subst ",,$(1)))
# $(call download,NAME): Buildroot's method "file"
download = $(if $(filter file://%,$($(1)_SITE)),cp $(patsubst file://%,%,$($(1)_SITE))/$($(1)_SOURCE) $(DL_DIR)/,\
  $(error the stub downloads from file:// only, not from $($(1)_SITE)))
# $(call check,NAME,FILE,DIRECTORY): the checksum of FILE must be in the hash file of the package
check = cd $(3) && awk '$$1 == "sha256" && $$3 == "$(2)" { print $$2 "  " $$3 }' \
  $(BR2_EXTERNAL_RUNELD_PATH)/package/runeld/runeld.hash | sha256sum --check --strict --quiet -
define newline


endef

# $(call package,NAME): the variables that a package may leave out, and its steps.
define package
$(1)_SOURCE ?= runeld-$$($(1)_VERSION).tar.gz
$(1)_DIR = $$(BUILD_DIR)/runeld-$$($(1)_VERSION)
$(1)_SUPPORTS_IN_SOURCE_BUILD ?= YES
$(1)_BUILDDIR = $$($(1)_DIR)$$(if $$(filter NO,$$($(1)_SUPPORTS_IN_SOURCE_BUILD)),/buildroot-build)

$$($(1)_DIR)/.stamp_extracted:
	mkdir -p $$(DL_DIR) $$(@D) $$(TARGET_DIR)
	$$(call download,$(1))
	$$(call check,$(1),$$($(1)_SOURCE),$$(DL_DIR))
	tar -xzf $$(DL_DIR)/$$($(1)_SOURCE) -C $$(@D) --strip-components=1
	$$(foreach file,$$($(1)_LICENSE_FILES),$$(call check,$(1),$$(file),$$(@D))$$(newline))
	touch $$@

$$($(1)_DIR)/.stamp_configured: $$($(1)_DIR)/.stamp_extracted
	mkdir -p $$($(1)_BUILDDIR)
	cd $$($(1)_BUILDDIR) && cmake $$($(1)_DIR) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_DOC=OFF -DBUILD_DOCS=OFF -DBUILD_EXAMPLE=OFF -DBUILD_EXAMPLES=OFF \
	  -DBUILD_TEST=OFF -DBUILD_TESTS=OFF -DBUILD_TESTING=OFF -DBUILD_SHARED_LIBS=ON $$($(1)_CONF_OPTS)
	touch $$@

$$($(1)_DIR)/.stamp_built: $$($(1)_DIR)/.stamp_configured
	$$(MAKE) -C $$($(1)_BUILDDIR)
	touch $$@

$$($(1)_DIR)/.stamp_target_installed: $$($(1)_DIR)/.stamp_built
	DESTDIR=$$(TARGET_DIR) cmake --install $$($(1)_BUILDDIR)
	$$(if $$(BR2_INIT_SYSTEMD),$$($(1)_INSTALL_INIT_SYSTEMD))
	$$(if $$(BR2_INIT_SYSV)$$(BR2_INIT_BUSYBOX),$$($(1)_INSTALL_INIT_SYSV))
	$$(foreach hook,$$($(1)_POST_INSTALL_TARGET_HOOKS),$$($$(hook))$$(newline))
	touch $$@

target: $$($(1)_DIR)/.stamp_target_installed
show:
	@printf '%s\n' '$$($(1)_VERSION)' '$$($(1)_SITE)/$$($(1)_SOURCE)' '$$($(1)_LICENSE)'
endef
cmake-package = $(call package,RUNELD)

.PHONY: target show
include $(BR2_EXTERNAL_RUNELD_PATH)/external.mk
