# SPDX-License-Identifier: Apache-2.0
# A stub of OpenWrt's package.mk: download from a directory, checksum, unpacking, the steps of the build
# system, the contents of the package, and its file PACKAGE_VERSION-RELEASE_ARCH.ipk.
PKG_BUILD_DIR ?= $(OUTPUT)/build_dir/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install

fetch = $(if $(filter file://%,$(PKG_SOURCE_URL)),cp $(patsubst file://%,%,$(PKG_SOURCE_URL))/$(PKG_SOURCE) $(DL_DIR)/,\
  $(error the stub downloads from file:// only, not from $(PKG_SOURCE_URL)))

# The definition of a package is a list of assignments, one a line.
define BuildPackage
$(eval $(Package/$(1)))
$(foreach name,SECTION CATEGORY TITLE,$(if $($(name)),,$(error $(1) has no $(name))))
CONTROL_DIR := $(OUTPUT)/ipkg/$(1)
IDIR := $(OUTPUT)/ipkg/$(1)/data
export CONFFILES := $$(strip $$(Package/$(1)/conffiles))
export DESCRIPTION := $$(strip $$(Package/$(1)/description))

compile:
	mkdir -p $(DL_DIR) $(BIN_DIR) $(PKG_BUILD_DIR)
	$$(fetch)
	echo "$(PKG_HASH)  $(DL_DIR)/$(PKG_SOURCE)" | sha256sum --check --strict --quiet -
	tar -xzf $(DL_DIR)/$(PKG_SOURCE) -C $(PKG_BUILD_DIR) --strip-components=1
	test -f $(PKG_BUILD_DIR)/$(PKG_LICENSE_FILES)
	$$(Build/Configure)
	$$(Build/Compile)
	$(if $(PKG_INSTALL),$$(Build/Install))
	rm -rf $$(CONTROL_DIR)
	mkdir -p $$(IDIR)
	$$(call Package/$(1)/install,$$(IDIR))
	printf '%s\n' 'Package: $(1)' 'Version: $(PKG_VERSION)-$(PKG_RELEASE)' 'Architecture: $(ARCH)' \
	  'License: $(PKG_LICENSE)' 'Section: $(SECTION)' 'Depends: libc, $(subst +,,$(DEPENDS))' \
	  "Description: $$$$DESCRIPTION" >$$(CONTROL_DIR)/control
	printf '%s\n' $$$$CONFFILES >$$(CONTROL_DIR)/conffiles
	echo 2.0 >$$(CONTROL_DIR)/debian-binary
	cd $$(CONTROL_DIR) && tar --owner=0 --group=0 -czf control.tar.gz ./control ./conffiles
	cd $$(CONTROL_DIR)/data && tar --owner=0 --group=0 -czf ../data.tar.gz .
	cd $$(CONTROL_DIR) && tar -czf $(BIN_DIR)/$(1)_$(PKG_VERSION)-$(PKG_RELEASE)_$(ARCH).ipk \
	  ./debian-binary ./control.tar.gz ./data.tar.gz

show:
	@printf '%s\n' '$(PKG_VERSION)' '$(PKG_SOURCE_URL)/$(PKG_SOURCE)' '$(PKG_HASH)' '$(PKG_LICENSE)' \
	  '$(TITLE)' '$(DEPENDS)' "$$$$CONFFILES" "$$$$DESCRIPTION"
.PHONY: compile show
endef
