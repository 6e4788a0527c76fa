# SPDX-License-Identifier: Apache-2.0
# Static daemon for 64-bit RISC-V. The linker of LLVM 14 cannot relax.
set(musl_arch riscv64)
set(musl_processor riscv64)
set(musl_triple riscv64-linux-musl)
set(musl_flags "-march=rv64gc -mabi=lp64d -mno-relax")
set(musl_libgcc /usr/lib/gcc-cross/riscv64-linux-gnu/12/libgcc.a)
include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")
