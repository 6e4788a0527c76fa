# SPDX-License-Identifier: Apache-2.0
# A stub of OpenWrt's cmake.mk: builds for this machine. It always installs into PKG_INSTALL_DIR.
PKG_INSTALL := 1
CMAKE_BINARY_DIR = $(PKG_BUILD_DIR)$(if $(CMAKE_BINARY_SUBDIR),/$(CMAKE_BINARY_SUBDIR))

define Build/Configure
mkdir -p $(CMAKE_BINARY_DIR)
cd $(CMAKE_BINARY_DIR) && CFLAGS="$(TARGET_CFLAGS)" CXXFLAGS="$(TARGET_CXXFLAGS)" cmake -G Ninja \
  --no-warn-unused-cli -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE=-DNDEBUG \
  -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG -DCMAKE_STRIP=: -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_RPATH=TRUE \
  $(CMAKE_OPTIONS) $(PKG_BUILD_DIR)
endef

define Build/Compile
ninja -C $(CMAKE_BINARY_DIR)
endef

define Build/Install
DESTDIR=$(PKG_INSTALL_DIR) ninja -C $(CMAKE_BINARY_DIR) install
endef
