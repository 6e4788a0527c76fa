# SPDX-License-Identifier: Apache-2.0
# A stub of OpenWrt's build system for one package that uses cmake.mk: make TOPDIR=THIS OUTPUT=DIRECTORY compile
INCLUDE_DIR := $(TOPDIR)/include
DL_DIR := $(OUTPUT)/dl
BIN_DIR := $(OUTPUT)/bin
ARCH := x86_64
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
TARGET_CFLAGS := -Os -pipe
TARGET_CXXFLAGS := $(TARGET_CFLAGS)
