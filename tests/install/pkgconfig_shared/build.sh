#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Links the shared library. PKG_CONFIG_PATH must name the directory of runel.pc.
set -e
c++ -std=c++17 -Wall -Werror ../main.cc $(pkg-config --cflags --libs runel) -o program
