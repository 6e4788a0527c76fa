# SPDX-License-Identifier: Apache-2.0
# Static daemon for 64-bit ARM.
set(musl_arch arm64)
set(musl_processor aarch64)
set(musl_triple aarch64-linux-musl)
set(musl_flags "-mno-outline-atomics")
set(musl_libgcc /usr/lib/gcc-cross/aarch64-linux-gnu/12/libgcc.a)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
