# Control groups: base layer, legacy limit, manager, client. An object library, so that the tests link the very same
# objects: what is below the seam is hidden in the shared library.
add_library(zelCgroup OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/CgroupStatus.cpp
  ${CMAKE_CURRENT_LIST_DIR}/OomCounters.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ComponentFile.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CgroupManagerTree.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CgroupManagerStatus.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CgroupManager.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CgroupClient.cpp
  ${CMAKE_CURRENT_LIST_DIR}/GroupDir.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Hierarchy.cpp
  ${CMAKE_CURRENT_LIST_DIR}/KernelExclude.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LegacyLimit.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LimitUnits.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Limits.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcText.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcessTable.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Result.cpp)
target_include_directories(zelCgroup PRIVATE ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(zelCgroup PRIVATE PkgConfig::JSONCPP zelFlags)
target_sources(zelUtil PRIVATE $<TARGET_OBJECTS:zelCgroup>)
