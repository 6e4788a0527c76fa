# SPDX-License-Identifier: Apache-2.0
# Installs the client library: headers, both libraries, the CMake package and the pkg-config file.
# `cmake --install BUILD --component development` installs only these.
include(CMakePackageConfigHelpers)

set(package "${CMAKE_INSTALL_LIBDIR}/cmake/runel")
set(generated "${PROJECT_BINARY_DIR}/client")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/client/include/runel"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development FILES_MATCHING PATTERN "*.h")
install(TARGETS runel runel_shared EXPORT runelTargets
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development)

install(EXPORT runelTargets NAMESPACE runel:: DESTINATION "${package}" COMPONENT development)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/runelConfig.cmake.in"
  "${generated}/runelConfig.cmake" INSTALL_DESTINATION "${package}")
write_basic_package_version_file("${generated}/runelConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${generated}/runelConfig.cmake" "${generated}/runelConfigVersion.cmake"
  DESTINATION "${package}" COMPONENT development)

# Paths relative to the file itself: `cmake --install --prefix` may change the prefix.
file(RELATIVE_PATH RUNEL_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" RUNEL_PREFIX "${RUNEL_PREFIX}")
find_package(Threads REQUIRED)  # a separate library on older systems
configure_file("${PROJECT_SOURCE_DIR}/cmake/runel.pc.in" "${generated}/runel.pc" @ONLY)
install(FILES "${generated}/runel.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT development)
