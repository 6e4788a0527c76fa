# SPDX-License-Identifier: Apache-2.0
# Static daemon for 64-bit x86.
set(musl_arch amd64)
set(musl_processor x86_64)
set(musl_triple x86_64-linux-musl)
set(musl_flags "-m64")
set(musl_libgcc /usr/lib/gcc/x86_64-linux-gnu/12/libgcc.a)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
