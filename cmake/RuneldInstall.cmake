# What `cmake --install` puts where. DESTDIR and CMAKE_INSTALL_PREFIX work as usual.
set(RUNELD_UNIT_DIR "lib/systemd/system" CACHE STRING "Folder of the systemd service files")

configure_file("${PROJECT_SOURCE_DIR}/packaging/runeld.service.in"
  "${PROJECT_BINARY_DIR}/runeld.service" @ONLY)

install(TARGETS runeld RUNTIME DESTINATION "${CMAKE_INSTALL_SBINDIR}")
install(FILES "${PROJECT_SOURCE_DIR}/man/runeld.8" DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")
install(FILES "${PROJECT_BINARY_DIR}/runeld.service" DESTINATION "${RUNELD_UNIT_DIR}")
if(RUNELD_CTL)
  install(TARGETS runelctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  install(FILES "${PROJECT_SOURCE_DIR}/man/runelctl.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
endif()
install(FILES "${PROJECT_SOURCE_DIR}/CHANGES" "${PROJECT_SOURCE_DIR}/LICENSE"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}")
# The documents arrive one by one; what is there is installed.
foreach(document README.md docs/protocol.md docs/runelctl.md)
  install(FILES "${PROJECT_SOURCE_DIR}/${document}" DESTINATION "${CMAKE_INSTALL_DOCDIR}" OPTIONAL)
endforeach()
