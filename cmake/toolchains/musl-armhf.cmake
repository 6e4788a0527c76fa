# SPDX-License-Identifier: Apache-2.0
# Static daemon for 32-bit ARM with hardware floating point, as Debian's armhf.
set(musl_arch armhf)
set(musl_processor armv7l)
set(musl_triple arm-linux-musleabihf)
set(musl_flags "-march=armv7-a -mfpu=vfpv3-d16 -mthumb")
set(musl_libgcc /usr/lib/gcc-cross/arm-linux-gnueabihf/12/libgcc.a)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
