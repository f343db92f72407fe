# What `make install` puts where: libraries, headers, CMake package, pkg-config file, agent, unit file, man pages.
include(CMakePackageConfigHelpers)

install(TARGETS zelSeam zelUtil zelHost zelMonitor EXPORT zelMonitorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT zelMonitorTargets NAMESPACE zel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zelMonitorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zelMonitorConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelMonitor)

install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelMonitor FILES_MATCHING PATTERN "*.h")
install(DIRECTORY src/platform DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelMonitor FILES_MATCHING PATTERN "*.h")
configure_file(packaging/zelMonitor.pc.in zelMonitor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelMonitor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET tervane)
  set_target_properties(tervane PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS tervane RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  configure_file(packaging/tervane.service.in tervane.service @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tervane.service DESTINATION lib/systemd/system)
  install(DIRECTORY agent/conf/ DESTINATION ${CMAKE_INSTALL_DATADIR}/tervane/conf)
  install(FILES man/tervane.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endif()
if(TARGET tervanectl)
  set_target_properties(tervanectl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS tervanectl RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(FILES man/tervanectl.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
endif()
foreach(library zelHost zelMonitor)
  set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()
