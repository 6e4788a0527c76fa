# SPDX-License-Identifier: Apache-2.0
# Static daemon for 32-bit MIPS, little endian, as Debian's mipsel.
set(musl_arch mipsel)
set(musl_processor mips)
set(musl_triple mipsel-linux-musl)
set(musl_flags "-march=mips32r2")
set(musl_libgcc /usr/lib/gcc-cross/mipsel-linux-gnu/12/libgcc.a)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
