# SPDX-License-Identifier: Apache-2.0
# An interface target with the language level, the warnings and the instrumentation for every target
# of the tree.
add_library(runeld_options INTERFACE)
target_compile_features(runeld_options INTERFACE cxx_std_17)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# glibc on a 32-bit processor: without this, files of 2 GiB or more, inode numbers above 32 bits and times after
# January 2038 are errors. musl and 64-bit processors have no other types.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# No -Wpedantic: GCC would warn about every %m in a log format.
target_compile_options(runeld_options INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wold-style-cast -Woverloaded-virtual -Wnon-virtual-dtor>
  $<$<BOOL:${RUNELD_WERROR}>:-Werror>)

# The objects of two copies of the tree are the same: a path of the tree is relative to its top directory,
# and a debugger that runs there finds the source. A sanitizer's reports, the counts of coverage and a build
# for a debugger keep the absolute paths.
set(RUNELD_TREE "${PROJECT_SOURCE_DIR}/")
if(NOT CMAKE_BUILD_TYPE STREQUAL Debug AND NOT RUNELD_SANITIZE AND NOT RUNELD_FUZZ AND NOT RUNELD_COVERAGE)
  set(RUNELD_TREE "")
  # GCC takes the last option that fits. Clang takes the shortest path, so no path begins with another.
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    add_compile_options(-ffile-compilation-dir=/usr/src/runeld)
  else()
    add_compile_options("-ffile-prefix-map=${PROJECT_BINARY_DIR}=/usr/src/runeld")
  endif()
  foreach(directory bench client fuzz gateway include lib runelctl src tests verify)
    add_compile_options("-ffile-prefix-map=${PROJECT_SOURCE_DIR}/${directory}/=${directory}/"
      "-ffile-prefix-map=${PROJECT_BINARY_DIR}/${directory}/=${directory}/")
  endforeach()
  if(CMAKE_SYSROOT)
    add_compile_options("-ffile-prefix-map=${CMAKE_SYSROOT}=/usr/src/sysroot")
  endif()
endif()
# Otherwise the length of the path of the build would remain in the installed programs.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

if(RUNELD_UNITY AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # The compiler would collect garbage each time its heap doubles. A batch compiles faster without
  # that, in a tenth more memory. The code is the same: only the debug information names the options.
  target_compile_options(runeld_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:--param=ggc-min-expand=1000 --param=ggc-min-heapsize=2000000>)
endif()
if(RUNELD_MINIMAL)
  target_compile_options(runeld_options INTERFACE -Os)  # behind the option of the build type
endif()
if(RUNELD_SANITIZE)
  target_compile_options(runeld_options INTERFACE
    -fsanitize=${RUNELD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    -g1)  # line numbers in reports
  target_link_options(runeld_options INTERFACE -fsanitize=${RUNELD_SANITIZE})
endif()
if(RUNELD_SANITIZE MATCHES address AND NOT RUNELD_FUZZ)
  # Each check has a record with the place in the source. In a position-independent program the
  # dynamic linker relocates all of them at each start: a million in runelctl, half of its start.
  target_link_options(runeld_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
endif()
if(RUNELD_FUZZ)
  # Instruments all targets for the fuzzer; only the fuzzers link it.
  target_compile_options(runeld_options INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(runeld_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(RUNELD_COVERAGE)
  target_compile_options(runeld_options INTERFACE --coverage -fprofile-abs-path)
  target_compile_definitions(runeld_options INTERFACE RUNELD_COVERAGE)
  target_link_options(runeld_options INTERFACE --coverage)
endif()

# Lets @p name include the headers of a directory, by default the current one: as "server/x.h" for
# src/server, "device/linux/x.h" for lib/device/linux, "unit/agent/x.h" for tests/unit/agent. An
# include directory with a link to the directory provides this name and no other. Debuggers and
# coverage get the path in the source tree.
#   runeld_headers(NAME PUBLIC|PRIVATE|INTERFACE [DIRECTORY])
function(runeld_headers name scope)
  set(directory "${CMAKE_CURRENT_SOURCE_DIR}")
  if(ARGN)
    set(directory "${PROJECT_SOURCE_DIR}/${ARGN}")
  endif()
  file(RELATIVE_PATH path "${PROJECT_SOURCE_DIR}" "${directory}")
  string(REGEX REPLACE "^(src|lib|tests)/" "" spelled "${path}")
  string(REPLACE "/" "_" root "${spelled}")
  set(root "${PROJECT_BINARY_DIR}/include/${root}")
  get_filename_component(above "${root}/${spelled}" DIRECTORY)
  file(MAKE_DIRECTORY "${above}")
  file(CREATE_LINK "${directory}" "${root}/${spelled}" SYMBOLIC)
  target_include_directories(${name} ${scope} "$<BUILD_INTERFACE:${root}>")
  target_compile_options(${name} ${scope}
    "$<BUILD_INTERFACE:-ffile-prefix-map=${root}/${spelled}=${RUNELD_TREE}${path}>")
endfunction()

# Adds a library of the tree: its sources, the options above, and the libraries it depends on. It is
# static, or with OBJECT a part of the libraries that link it.
#   LINK   libraries whose headers its own headers include
#   USES   libraries whose headers only its sources include
#   HIDDEN  targets that link it do not see its headers
function(runeld_library name)
  cmake_parse_arguments(ARG "OBJECT;HIDDEN" "" "SOURCES;LINK;USES" ${ARGN})
  set(kind STATIC)
  if(ARG_OBJECT)
    set(kind OBJECT)
  endif()
  add_library(${name} ${kind} ${ARG_SOURCES})
  if(ARG_HIDDEN)
    runeld_headers(${name} PRIVATE)
  else()
    runeld_headers(${name} PUBLIC)
  endif()
  target_link_libraries(${name} PUBLIC runeld_options ${ARG_LINK} PRIVATE ${ARG_USES})
  if(RUNELD_SANITIZE)  # 20 % slower to compile, and the tests use a sixth less processor time
    target_compile_options(${name} PRIVATE -O1)
  else()  # so that --gc-sections removes what a program does not use
    target_compile_options(${name} PRIVATE -ffunction-sections -fdata-sections)
  endif()
endfunction()

# Compiles the sources of @p name in batches. Otherwise most of the build time goes into header-only
# template libraries, which each source parses and instantiates again. A batch shares one scope, so
# helpers in unnamed namespaces need unique names within a target.
function(runeld_unity name)
  set_target_properties(${name} PROPERTIES
    UNITY_BUILD ${RUNELD_UNITY} UNITY_BUILD_MODE BATCH UNITY_BUILD_BATCH_SIZE 16)
endfunction()
