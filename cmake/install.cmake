# Two components: the tool with what helps to read its output, and the simulated modem.
include(GNUInstallDirs)
set(WMBUSCTL_MAN1_DIR ${CMAKE_INSTALL_MANDIR}/man1)
set(WMBUSCTL_COMPLETION_DIR ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

install(TARGETS wmbusctl RUNTIME COMPONENT tool)
install(FILES docs/wmbusctl.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT tool)
install(FILES packaging/completions/wmbusctl DESTINATION ${WMBUSCTL_COMPLETION_DIR} COMPONENT tool)
# The prefix is certain only now: cmake --install takes one, too.
install(CODE "cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE bindir)
cmake_path(APPEND bindir \"${CMAKE_INSTALL_BINDIR}\")
configure_file(\"${PROJECT_SOURCE_DIR}/packaging/wmbusctl.service.in\"
  \"${PROJECT_BINARY_DIR}/wmbusctl.service\" @ONLY)" COMPONENT tool)
install(FILES ${PROJECT_BINARY_DIR}/wmbusctl.service DESTINATION lib/systemd/system COMPONENT tool)
if(TARGET wmbusctl-frames)
  install(TARGETS wmbusctl-frames RUNTIME COMPONENT tool)
  install(FILES docs/wmbusctl-frames.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT tool)
  install(FILES packaging/completions/wmbusctl-frames DESTINATION ${WMBUSCTL_COMPLETION_DIR}
          COMPONENT tool)
endif()
if(EXISTS ${PROJECT_SOURCE_DIR}/tools/wmbusctl.lua)
  install(FILES tools/wmbusctl.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/wmbusctl COMPONENT tool)
endif()

install(TARGETS wmbusctl-sim RUNTIME COMPONENT sim)
install(FILES docs/wmbusctl-sim.1 DESTINATION ${WMBUSCTL_MAN1_DIR} COMPONENT sim)
install(FILES packaging/completions/wmbusctl-sim DESTINATION ${WMBUSCTL_COMPLETION_DIR}
        COMPONENT sim)
