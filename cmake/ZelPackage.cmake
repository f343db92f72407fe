# Debian packages of the installation: libzelmonitor0, libzelmonitor-dev, tervane, and tervane-fleet with
# tervane-fleet-tools where libnats was there to build it. `make package`; the build that they are made of may be any.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "the zelMonitor project")
set(CPACK_PACKAGE_CONTACT "zelMonitor maintainers <maintainers@zelmonitor.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
# Staged below a directory of its own, with the prefix of a distribution's package.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/ZelPackageTidy.cmake)
set(CPACK_ZEL_SOURCE ${PROJECT_SOURCE_DIR})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL lib dev agent configuration)
if(TARGET tervane-relay)
  list(APPEND CPACK_COMPONENTS_ALL fleet fleet-tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Loaded by name where events go out by HTTP; Debian 13 calls it by the width of its times.
set(curl "libcurl4t64 | libcurl4")

set(CPACK_DEBIAN_LIBZELMONITOR0_PACKAGE_NAME libzelmonitor0)
set(CPACK_DEBIAN_LIBZELMONITOR0_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBZELMONITOR0_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_LIBZELMONITOR0_PACKAGE_RECOMMENDS "${curl}")
set(CPACK_DEBIAN_LIBZELMONITOR0_DESCRIPTION "resource monitor for host agents - libraries
Keeps the processes of a host agent inside a budget of CPU and memory by
control groups, tells worker threads when to hold back, notices kills for
want of memory, and watches the host for memory pressure, swapping and full
disks.")

set(CPACK_DEBIAN_LIBZELMONITOR-DEV_PACKAGE_NAME libzelmonitor-dev)
set(CPACK_DEBIAN_LIBZELMONITOR-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBZELMONITOR-DEV_PACKAGE_DEPENDS
  "libzelmonitor0 (= ${PROJECT_VERSION}-1), libjsoncpp-dev")
set(CPACK_DEBIAN_LIBZELMONITOR-DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_LIBZELMONITOR-DEV_DESCRIPTION "resource monitor for host agents - development files
Headers, CMake package and pkg-config file of the resource monitor, for
those who embed it in an agent of their own.")

set(CPACK_DEBIAN_TERVANE_PACKAGE_NAME tervane)
set(CPACK_DEBIAN_TERVANE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TERVANE_PACKAGE_RECOMMENDS "${curl}")
set(CPACK_DEBIAN_TERVANE_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
  ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_TERVANE_DESCRIPTION "host agent that stays inside its budget
Runs the components of a host agent in a tree of control groups with a quota
of CPU and memory for each, starts those again that end, tells why they
ended, and reports what the host runs short of. With its console tervanectl.")

set(CPACK_DEBIAN_TERVANE-FLEET_PACKAGE_NAME tervane-fleet)
set(CPACK_DEBIAN_TERVANE-FLEET_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TERVANE-FLEET_PACKAGE_DEPENDS "tervane (= ${PROJECT_VERSION}-1)")
set(CPACK_DEBIAN_TERVANE-FLEET_DESCRIPTION "host agent that stays inside its budget - relay to a fleet's broker
Brings the events of a host's agent to a broker (NATS JetStream), each once,
where its configuration names one. A host that is in no fleet needs none of it.")

set(CPACK_DEBIAN_TERVANE-FLEET-TOOLS_PACKAGE_NAME tervane-fleet-tools)
set(CPACK_DEBIAN_TERVANE-FLEET-TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TERVANE-FLEET-TOOLS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_TERVANE-FLEET-TOOLS_PACKAGE_DEPENDS "python3, python3-cryptography")
set(CPACK_DEBIAN_TERVANE-FLEET-TOOLS_DESCRIPTION "host agent that stays inside its budget - keys of a fleet
Makes the operator, the rights and the credentials of a fleet's hosts and
people, and certificates and configuration of its brokers (NATS JetStream).
For the machine that keeps the keys; no host needs it.")

# Each package has a summary of its own in the first line of its description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
include(CPack)
cpack_add_component_group(libzelmonitor0)
cpack_add_component_group(libzelmonitor-dev)
cpack_add_component_group(tervane)
if(TARGET tervane-relay)
  cpack_add_component_group(tervane-fleet)
  cpack_add_component(fleet GROUP tervane-fleet)
  cpack_add_component_group(tervane-fleet-tools)
  cpack_add_component(fleet-tools GROUP tervane-fleet-tools)
endif()
cpack_add_component(lib GROUP libzelmonitor0)
cpack_add_component(dev GROUP libzelmonitor-dev)
cpack_add_component(agent GROUP tervane)
cpack_add_component(configuration GROUP tervane)
