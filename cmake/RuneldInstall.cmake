# SPDX-License-Identifier: Apache-2.0
# The files that `cmake --install` installs, and their directories. DESTDIR and CMAKE_INSTALL_PREFIX
# work as usual. `--component documents` installs only the manuals and documents, which need no
# build.
set(RUNELD_UNIT_DIR "lib/systemd/system" CACHE STRING "Directory of the systemd service files")
set(RUNELD_HELPER_DIR "lib/runeld" CACHE STRING "Directory of the programs that the services run")

cmake_path(APPEND CMAKE_INSTALL_PREFIX "${RUNELD_HELPER_DIR}" runeld-guard OUTPUT_VARIABLE RUNELD_FULL_GUARD)
configure_file("${PROJECT_SOURCE_DIR}/packaging/systemd/runeld.service.in"
  "${PROJECT_BINARY_DIR}/runeld.service" @ONLY)
configure_file("${PROJECT_SOURCE_DIR}/packaging/systemd/hardened.conf.in"
  "${PROJECT_BINARY_DIR}/hardened.conf" @ONLY)

install(TARGETS runeld RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}")
install(FILES "${PROJECT_BINARY_DIR}/runeld.service" DESTINATION "${RUNELD_UNIT_DIR}")
# For clients: no task tells the version of the daemon, and the daemon has no option for it.
file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/version" CONTENT "@PROJECT_VERSION@\n" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/version" DESTINATION "${CMAKE_INSTALL_DATADIR}/runeld")
file(READ "${PROJECT_SOURCE_DIR}/packaging/guard/runeld-guard" guard)
string(REPLACE "\nport=5111\n" "\nport=${RUNELD_DEVICE_PORT}\n" guard "${guard}")
file(WRITE "${PROJECT_BINARY_DIR}/runeld-guard" "${guard}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/packaging/guard/runeld-guard")
install(PROGRAMS "${PROJECT_BINARY_DIR}/runeld-guard" DESTINATION "${RUNELD_HELPER_DIR}")
file(READ "${PROJECT_SOURCE_DIR}/packaging/protection/runeld-protect" protect)
string(REPLACE "\ndevice_port=5111\n" "\ndevice_port=${RUNELD_DEVICE_PORT}\n" protect "${protect}")
string(REPLACE "\nmaster_port=5112\n" "\nmaster_port=${RUNELD_MASTER_PORT}\n" protect "${protect}")
string(REPLACE "\ndefault_master=127.0.0.1\n" "\ndefault_master=${RUNELD_MASTER}\n" protect "${protect}")
file(WRITE "${PROJECT_BINARY_DIR}/runeld-protect" "${protect}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/packaging/protection/runeld-protect")
install(PROGRAMS "${PROJECT_BINARY_DIR}/runeld-protect" DESTINATION "${CMAKE_INSTALL_SBINDIR}")
# Where the unit reads it: /etc belongs to the prefix /usr.
set(configuration "${CMAKE_INSTALL_SYSCONFDIR}")
if(NOT CMAKE_INSTALL_FULL_SYSCONFDIR STREQUAL "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SYSCONFDIR}")
  set(configuration "${CMAKE_INSTALL_FULL_SYSCONFDIR}")
endif()
install(FILES "${PROJECT_SOURCE_DIR}/packaging/default/runeld" DESTINATION "${configuration}/default")
if(RUNELD_CTL)
  install(TARGETS runelctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  # Units that an operator enables, and alert rules for the server.
  configure_file("${PROJECT_SOURCE_DIR}/packaging/monitoring/runelctl-probe.service.in"
    "${PROJECT_BINARY_DIR}/monitoring/runelctl-probe.service" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/monitoring/runelctl-probe.service"
      "${PROJECT_SOURCE_DIR}/packaging/monitoring/runelctl-probe.timer"
      "${PROJECT_SOURCE_DIR}/packaging/monitoring/runel.rules.yml"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/runelctl/monitoring" COMPONENT monitoring)
endif()

if(NOT RUNELD_DOCS)
  return()
endif()
if(RUNELD_GATEWAY)
  set(RUNELGW_CONFIG "/etc/runelgw/runelgw.toml")  # where the program looks for it
  configure_file("${PROJECT_SOURCE_DIR}/packaging/systemd/runelgw.service.in"
    "${PROJECT_BINARY_DIR}/runelgw.service" @ONLY)
  install(TARGETS runelgw RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}")
  install(FILES "${PROJECT_BINARY_DIR}/runelgw.service" DESTINATION "${RUNELD_UNIT_DIR}")
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/runelgw/runelgw.toml" DESTINATION "${configuration}/runelgw")
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/systemd/runelgw.sysusers" DESTINATION "lib/sysusers.d"
    RENAME runelgw.conf)
endif()

# The Wireshark dissector. The directory in which Wireshark finds it depends on the system.
install(FILES "${PROJECT_SOURCE_DIR}/packaging/wireshark/runel.lua"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/runel-wireshark" COMPONENT wireshark)
install(FILES "${PROJECT_SOURCE_DIR}/man/runeld.8" "${PROJECT_SOURCE_DIR}/man/runeld-protect.8"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man8" COMPONENT documents)
if(RUNELD_CTL)
  install(FILES "${PROJECT_SOURCE_DIR}/man/runelctl.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT documents)
endif()
if(RUNELD_GATEWAY)
  install(FILES "${PROJECT_SOURCE_DIR}/man/runelgw.8" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8"
    COMPONENT documents)
endif()

# The documents for operators and for authors of masters. They keep their directories of the source
# tree, so that the links between them work.
set(RUNELD_DOCUMENTS README.md SECURITY.md CHANGES LICENSE docs/protocol.md docs/examples/master.pl
  docs/install.md docs/build.md docs/limits.md docs/monitoring.md docs/security.md docs/versioning.md
  docs/runelctl.md docs/client.md docs/abi.md docs/wireshark.md
  client/examples/agent.cc client/examples/poll_loop.cc client/examples/push_file.cc
  client/examples/run_task.cc client/examples/ten_devices.cc client/examples/uv_loop.cc)

if(RUNELD_GATEWAY)
  list(APPEND RUNELD_DOCUMENTS docs/gateway.md docs/attach.md)
endif()

# Ready-made files for operators, installed as examples: each is a link of a document too.
file(GLOB RUNELD_PROTECTION RELATIVE "${PROJECT_SOURCE_DIR}" CONFIGURE_DEPENDS
  "${PROJECT_SOURCE_DIR}/packaging/protection/*")
list(REMOVE_ITEM RUNELD_PROTECTION packaging/protection/runeld-protect)
install(FILES ${RUNELD_PROTECTION} DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples/protection"
  COMPONENT documents)
install(FILES "${PROJECT_BINARY_DIR}/hardened.conf" DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples/systemd"
  COMPONENT documents)
list(TRANSFORM RUNELD_PROTECTION REPLACE "^packaging/" "examples/" OUTPUT_VARIABLE RUNELD_EXAMPLES)
if(RUNELD_GATEWAY)
  install(FILES "${PROJECT_SOURCE_DIR}/packaging/runelgw/haproxy.cfg"
    DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples/gateway" COMPONENT documents)
  list(APPEND RUNELD_EXAMPLES examples/gateway/haproxy.cfg)
endif()

# Writes the document to the build tree. Links to files that are not installed become plain text.
function(runeld_installed_document document)
  file(READ "${PROJECT_SOURCE_DIR}/${document}" text)
  string(REPLACE "/packaging/protection/" "/examples/protection/" text "${text}")
  string(REPLACE "/packaging/runelgw/" "/examples/gateway/" text "${text}")
  get_filename_component(directory "${document}" DIRECTORY)
  string(REGEX MATCHALL "\\([A-Za-z0-9_./-]+(#[a-z0-9-]+)?\\)" targets "${text}")
  list(REMOVE_DUPLICATES targets)
  foreach(target IN LISTS targets)
    string(REGEX REPLACE "[()]|#.*" "" path "${target}")
    cmake_path(SET path NORMALIZE "${directory}/${path}")
    string(REGEX REPLACE "^/" "" path "${path}")
    if(NOT path IN_LIST RUNELD_DOCUMENTS AND NOT path IN_LIST RUNELD_EXAMPLES)
      string(REGEX REPLACE "([().+])" "\\\\\\1" quoted "${target}")
      string(REGEX REPLACE "\\[([^]]*)\\]${quoted}" "\\1" text "${text}")
    endif()
  endforeach()
  file(WRITE "${PROJECT_BINARY_DIR}/documents/${document}" "${text}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/${document}")
endfunction()

foreach(document IN LISTS RUNELD_DOCUMENTS)
  get_filename_component(directory "${document}" DIRECTORY)
  set(from "${PROJECT_SOURCE_DIR}")
  if(document MATCHES "\\.md$")
    runeld_installed_document("${document}")
    set(from "${PROJECT_BINARY_DIR}/documents")
  endif()
  install(FILES "${from}/${document}" DESTINATION "${CMAKE_INSTALL_DOCDIR}/${directory}"
    COMPONENT documents)
endforeach()
