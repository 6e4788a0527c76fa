#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Links the static library. PKG_CONFIG_PATH must name the directory of runel.pc.
set -e
c++ -std=c++17 -Wall -Werror ../main.cc $(pkg-config --cflags runel) \
  -Wl,-Bstatic $(pkg-config --static --libs runel) -Wl,-Bdynamic -o program
