# Two components: the tool with what helps to read its output, and the simulated modem.
include(GNUInstallDirs)
set(WMBUSCTL_MAN1_DIR ${CMAKE_INSTALL_MANDIR}/man1)

install(TARGETS wmbusctl RUNTIME COMPONENT tool)
install(FILES docs/wmbusctl.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT tool)
if(TARGET wmbusctl-frames)
  install(TARGETS wmbusctl-frames RUNTIME COMPONENT tool)
  install(FILES docs/wmbusctl-frames.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT tool)
endif()
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/wmbusctl.lua)
  install(FILES tools/wmbusctl.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/wmbusctl COMPONENT tool)
endif()

install(TARGETS wmbusctl-sim RUNTIME COMPONENT sim)
install(FILES docs/wmbusctl-sim.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT sim)
