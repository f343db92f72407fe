# What an installation puts where. Components: "lib" is what programs that embed the module need to run,
# "dev" what they are built with, "agent" the agent and its console, "fleet" its relay to a broker, "fleet-tools" what
# makes a fleet's keys, "configuration" the administrator's files in /etc, which only packages bring (cmake --install
# leaves /etc alone; `make install` copies what is not there yet).
include(CMakePackageConfigHelpers)

install(TARGETS zelSeam zelUtil zelHost zelMonitor EXPORT zelMonitorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev)
install(TARGETS zelMonitorModule EXPORT zelMonitorTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT zelMonitorTargets NAMESPACE zel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor
  COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zelMonitorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor COMPONENT dev)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelMonitor COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY src/platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelMonitor COMPONENT dev
  FILES_MATCHING PATTERN "*.h")
# The file says where it is itself, so that a tree that was moved is still found.
file(RELATIVE_PATH ZEL_PC_TO_PREFIX /usr/${CMAKE_INSTALL_LIBDIR}/pkgconfig /usr)
configure_file(packaging/zelMonitor.pc.in zelMonitor.pc @ONLY)
configure_file(packaging/zelMonitorModule.pc.in zelMonitorModule.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelMonitor.pc ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorModule.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
# What an agent maker reads and begins with.
install(FILES docs/EMBEDDING.md docs/ASSURANCE.md docs/CGROUP.md docs/CONFIG.md docs/CONSOLE.md docs/EVENTS.md
  docs/FLEET.md docs/LOG.md docs/METRICS.md CHANGELOG.md
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzelmonitor-dev COMPONENT dev)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libzelmonitor-dev COMPONENT dev)
foreach(library zelHost zelMonitor)
  set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()

if(TARGET tervane)
  install(TARGETS tervane RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
  # Written when it is installed: only then is it known which prefix the programs have.
  install(CODE "set(SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/packaging/tervane.service.in\"
      \"${CMAKE_CURRENT_BINARY_DIR}/install/tervane.service\" @ONLY)" COMPONENT agent)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/install/tervane.service DESTINATION lib/systemd/system COMPONENT agent)
  # The same for a service manager's own directory of the host, for tests in guests.
  set(SBINDIR /usr/sbin)
  configure_file(packaging/tervane.service.in tervane.service @ONLY)
  install(FILES packaging/tervane.tmpfiles DESTINATION lib/tmpfiles.d RENAME tervane.conf COMPONENT agent)
  install(DIRECTORY agent/conf/ DESTINATION ${CMAKE_INSTALL_DATADIR}/tervane/conf COMPONENT agent
    PATTERN demo_components.json EXCLUDE)
  install(FILES docs/OPERATING.md docs/ASSURANCE.md docs/CGROUP.md docs/CONFIG.md docs/CONSOLE.md docs/EVENTS.md
    docs/FLEET.md docs/LOG.md docs/METRICS.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tervane COMPONENT agent)
  install(DIRECTORY packaging/prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/tervane COMPONENT agent)
  install(FILES man/tervane.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT agent)
  install(FILES man/tervane.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT agent)
  install(FILES agent/conf/resource_config agent/conf/components.json DESTINATION /etc/tervane
    COMPONENT configuration EXCLUDE_FROM_ALL)
  install(FILES agent/conf/agent.json DESTINATION /etc/tervane  # may hold a password of an endpoint
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ COMPONENT configuration EXCLUDE_FROM_ALL)
endif()
# Alone it needs libnats. Not in a directory of commands: the main process starts it.
if(TARGET tervane-relay)
  install(TARGETS tervane-relay RUNTIME DESTINATION libexec/tervane COMPONENT fleet)
  install(FILES man/tervane-relay.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT fleet)
  # For the machine that keeps a fleet's keys: no host needs it.
  install(PROGRAMS scripts/fleet-enrol RENAME tervane-fleet-enrol DESTINATION ${CMAKE_INSTALL_SBINDIR}
    COMPONENT fleet-tools)
  install(DIRECTORY packaging/fleet DESTINATION ${CMAKE_INSTALL_DATADIR}/tervane COMPONENT fleet-tools)
  install(FILES man/tervane-fleet-enrol.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT fleet-tools)
endif()
if(TARGET tervanectl)
  install(TARGETS tervanectl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
  install(FILES man/tervanectl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT agent)
  if(TARGET completions)
    install(FILES ${PROJECT_BINARY_DIR}/agent/tervanectl.bash RENAME tervanectl
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT agent)
    install(FILES ${PROJECT_BINARY_DIR}/agent/tervanectl.zsh RENAME _tervanectl
      DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT agent)
  endif()
endif()
