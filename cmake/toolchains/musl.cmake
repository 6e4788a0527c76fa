# SPDX-License-Identifier: Apache-2.0
# The common part of musl-ARCH.cmake: a static, position-independent program from clang, musl and
# libc++, as scripts/sysroot builds them. The including file sets musl_arch, musl_processor,
# musl_triple, musl_flags and musl_libgcc: the compiler's run-time functions, such as divisions.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${musl_processor})

if(NOT RUNELD_SYSROOT)
  set(RUNELD_SYSROOT "$ENV{RUNELD_SYSROOT}")
endif()
if(NOT RUNELD_SYSROOT)
  execute_process(COMMAND "${CMAKE_CURRENT_LIST_DIR}/../../scripts/sysroot" ${musl_arch}
    OUTPUT_VARIABLE RUNELD_SYSROOT OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
set(RUNELD_SYSROOT "${RUNELD_SYSROOT}" CACHE PATH "What scripts/sysroot has built" FORCE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RUNELD_SYSROOT)

set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_ASM_COMPILER clang-14)
set(CMAKE_AR llvm-ar-14 CACHE FILEPATH "")
set(CMAKE_RANLIB llvm-ranlib-14 CACHE FILEPATH "")
set(CMAKE_STRIP llvm-strip-14 CACHE FILEPATH "")
foreach(language C CXX ASM)
  set(CMAKE_${language}_COMPILER_TARGET ${musl_triple})
  set(CMAKE_${language}_FLAGS_INIT "${musl_flags} -fPIE -nostdlibinc")
endforeach()
set(CMAKE_SYSROOT "${RUNELD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${RUNELD_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The include directories, start files and libraries are named here, because clang would look for
# those of another compiler for this processor.
set(lib "${RUNELD_SYSROOT}/lib")
set(CMAKE_CXX_FLAGS_INIT
  "${CMAKE_CXX_FLAGS_INIT} -isystem ${RUNELD_SYSROOT}/include/c++/v1 -isystem ${RUNELD_SYSROOT}/include")
set(CMAKE_C_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -isystem ${RUNELD_SYSROOT}/include")
set(start "-static-pie ${lib}/rcrt1.o")
if(musl_arch STREQUAL mipsel)  # clang's unwind tables have absolute addresses there
  set(start "-static ${lib}/crt1.o")
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -nostdlib ${start} ${lib}/crti.o -L${lib}")
set(CMAKE_C_STANDARD_LIBRARIES "-lc ${musl_libgcc} -lc ${lib}/crtn.o")
set(CMAKE_CXX_STANDARD_LIBRARIES
  "-lc++ -lc++abi -Wl,--start-group -lunwind -lc ${musl_libgcc} -Wl,--end-group ${lib}/crtn.o")
