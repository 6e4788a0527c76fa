# SPDX-License-Identifier: Apache-2.0
# The software bill of materials, build/PRESET/runeld.spdx.json: what was built, from what, with which
# libraries. sbom.cmake writes it after the programs are linked. The target is called sbom.
option(RUNELD_SBOM "Write a software bill of materials" ON)
if(RUNELD_SBOM AND NOT CMAKE_READELF)
  message(STATUS "runeld: no software bill of materials, because readelf is missing")
  return()
elseif(NOT RUNELD_SBOM)
  return()
endif()

# The C and the C++ library have no CMake package. The compiler knows what it compiles against.
separate_arguments(RUNELD_SBOM_FLAGS NATIVE_COMMAND "${CMAKE_CXX_COMPILER_ARG1} ${CMAKE_CXX_FLAGS}")
if(CMAKE_CXX_COMPILER_TARGET)
  list(APPEND RUNELD_SBOM_FLAGS "--target=${CMAKE_CXX_COMPILER_TARGET}")
endif()
if(CMAKE_SYSROOT)
  list(APPEND RUNELD_SBOM_FLAGS "--sysroot=${CMAKE_SYSROOT}")
endif()
function(runeld_predefined name)
  file(WRITE "${PROJECT_BINARY_DIR}/sbom/versions.cc" "#include <cstdlib>\n${name}\n")
  execute_process(COMMAND "${CMAKE_CXX_COMPILER}" ${RUNELD_SBOM_FLAGS} -E -P
      "${PROJECT_BINARY_DIR}/sbom/versions.cc"
    OUTPUT_VARIABLE expanded ERROR_QUIET RESULT_VARIABLE status)
  string(REGEX MATCH "[^\n]*\n*$" value "${expanded}")
  string(STRIP "${value}" value)
  if(NOT status EQUAL 0 OR value STREQUAL name)
    set(value "")
  endif()
  set(${name} "${value}" PARENT_SCOPE)
endfunction()

runeld_predefined(__GLIBC__)
runeld_predefined(__GLIBC_MINOR__)
runeld_predefined(_LIBCPP_VERSION)
runeld_predefined(_GLIBCXX_RELEASE)

# Each library with its licence and version; "-" if the version is not known.
set(RUNELD_SBOM_LIBRARIES "")
macro(runeld_library_used name licence)
  if("${ARGN}" STREQUAL "")
    list(APPEND RUNELD_SBOM_LIBRARIES "${name}|${licence}|-")
  else()
    list(APPEND RUNELD_SBOM_LIBRARIES "${name}|${licence}|${ARGN}")
  endif()
endmacro()

if(__GLIBC__)
  set(RUNELD_SBOM_LIBC glibc)
  runeld_library_used(glibc LGPL-2.1-or-later "${__GLIBC__}.${__GLIBC_MINOR__}")
else()  # musl does not tell its version
  set(RUNELD_SBOM_LIBC musl)
  runeld_library_used(musl MIT)
endif()
set(gcc "GPL-3.0-or-later WITH GCC-exception-3.1")
set(llvm "Apache-2.0 WITH LLVM-exception")
if(_LIBCPP_VERSION)
  math(EXPR version "${_LIBCPP_VERSION} / 1000")
  set(RUNELD_SBOM_LIBCXX libc++)
  runeld_library_used(libc++ "${llvm}" "${version}")
else()
  set(RUNELD_SBOM_LIBCXX libstdc++)
  runeld_library_used(libstdc++ "${gcc}" "${_GLIBCXX_RELEASE}")
endif()
# Clang may use other run-time functions than those of GCC.
execute_process(COMMAND "${CMAKE_CXX_COMPILER}" ${RUNELD_SBOM_FLAGS} --print-libgcc-file-name
  OUTPUT_VARIABLE runtime ERROR_QUIET)
if(runtime MATCHES clang_rt)
  set(RUNELD_SBOM_RUNTIME compiler-rt)
  runeld_library_used(compiler-rt "${llvm}" ${CMAKE_CXX_COMPILER_VERSION})
else()
  set(RUNELD_SBOM_RUNTIME libgcc)
  runeld_library_used(libgcc "${gcc}" "${_GLIBCXX_RELEASE}")
endif()
set(static "")  # what runelctl contains, but for librunel: libraries of headers only
if(RUNELD_CTL)
  runeld_library_used(CLI11 BSD-3-Clause ${CLI11_VERSION})
  runeld_library_used(nlohmann-json MIT ${nlohmann_json_VERSION})
  runeld_library_used(toml++ MIT ${TOML_VERSION})
  runeld_library_used(libedit BSD-3-Clause ${EDIT_VERSION})
  runeld_library_used(zlib Zlib ${ZLIB_VERSION_STRING})
  runeld_library_used(bzip2 bzip2-1.0.6 ${BZIP2_VERSION_STRING})
  set(static "CLI11,nlohmann-json,toml++")
endif()

# Each file: the package that it belongs to, its path, and what it contains of others by source.
set(files "runeld|$<TARGET_FILE:runeld>|")
set(targets runeld)
if(RUNELD_CLIENT)
  list(APPEND files "librunel|$<TARGET_FILE:runel_shared>|" "librunel|$<TARGET_FILE:runel>|")
  list(APPEND targets runel_shared runel)
endif()
if(RUNELD_CTL)
  list(APPEND files "runelctl|$<TARGET_FILE:runelctl>|librunel,${static}")
  list(APPEND targets runelctl)
endif()

# The time of the document is SOURCE_DATE_EPOCH, that of the commit, or in a release tarball that of its
# files, which is also that of the commit.
set(settings "${PROJECT_BINARY_DIR}/sbom/settings.cmake")
file(GENERATE OUTPUT "${settings}" CONTENT "set(VERSION \"${PROJECT_VERSION}\")
set(SOURCE_DIR \"${PROJECT_SOURCE_DIR}\")
set(READELF \"${CMAKE_READELF}\")
set(LIBC \"${RUNELD_SBOM_LIBC}\")
set(RUNTIME \"${RUNELD_SBOM_LIBC};${RUNELD_SBOM_LIBCXX};${RUNELD_SBOM_RUNTIME}\")
set(LIBRARIES \"${RUNELD_SBOM_LIBRARIES}\")
set(FILES \"${files}\")
")
set(document "${PROJECT_BINARY_DIR}/runeld.spdx.json")
add_custom_command(OUTPUT "${document}"
  COMMAND "${CMAKE_COMMAND}" "-DSETTINGS=${settings}" "-DDOCUMENT=${document}"
    -P "${PROJECT_SOURCE_DIR}/cmake/sbom.cmake"
  DEPENDS ${targets} "${settings}" "${PROJECT_SOURCE_DIR}/cmake/sbom.cmake"
  COMMENT "Writing the software bill of materials" VERBATIM)
add_custom_target(sbom ALL DEPENDS "${document}")
if(RUNELD_DOCS)
  install(FILES "${document}" DESTINATION "${CMAKE_INSTALL_DOCDIR}")
endif()
