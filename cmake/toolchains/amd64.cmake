# SPDX-License-Identifier: Apache-2.0
# 64-bit x86, with Debian's compiler g++-x86-64-linux-gnu and glibc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER x86_64-linux-gnu-g++)
set(CMAKE_STRIP x86_64-linux-gnu-strip CACHE FILEPATH "")
