# What `cmake --install` puts under the prefix (GNUInstallDirs folders):
#   bin/gpumon
#   lib/libzev_r_linux_x64.so          the host library, which a host links
#   lib/zev/plugin_zev_gpumon_x64.so   the plug-in, which a host loads by path
#   lib/zev/libzev-cuda-standin.so     what gpumon --record puts in NVIDIA recordings
#   include/zev/*.h                    the framework's and the monitor's interfaces
#   lib/cmake/zev_gpumon/              the CMake package: find_package(zev_gpumon)
#                                      gives zev_gpumon::host and zev_gpumon_PLUGIN
# Installed binaries find their libraries relative to themselves ($ORIGIN), so
# the prefix runs wherever it lies, without LD_LIBRARY_PATH.
include(CMakePackageConfigHelpers)

file(RELATIVE_PATH zev_plugin_to_lib ${ZEV_INSTALL_FULL_PLUGIN_DIR} ${CMAKE_INSTALL_FULL_LIBDIR})
string(REGEX REPLACE "/$" "" zev_plugin_to_lib "${zev_plugin_to_lib}")  # "../" -> ".."
set_target_properties(plugin_zev_gpumon_x64 PROPERTIES
  INSTALL_RPATH "$ORIGIN/${zev_plugin_to_lib}")
install(TARGETS plugin_zev_gpumon_x64 LIBRARY DESTINATION ${ZEV_INSTALL_PLUGIN_DIR})
if(ZEV_PLUGIN_ONLY)
  # The board's framework brings the host library and the headers.
  return()
endif()

set_target_properties(zev_r PROPERTIES EXPORT_NAME host)
install(TARGETS zev_r EXPORT zev_gpumonTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/zev ${PROJECT_SOURCE_DIR}/plugin/include/zev
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

file(RELATIVE_PATH zev_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(gpumon PROPERTIES INSTALL_RPATH "$ORIGIN/${zev_bin_to_lib}")
install(TARGETS gpumon RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# gpumon --record puts this stand-in for the CUDA driver library (whose
# presence is all the monitor checks) into recordings of NVIDIA machines.
install(FILES $<TARGET_FILE:fake_cuda> DESTINATION ${ZEV_INSTALL_PLUGIN_DIR}
  RENAME libzev-cuda-standin.so)

set(zev_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zev_gpumon)
install(EXPORT zev_gpumonTargets NAMESPACE zev_gpumon:: DESTINATION ${zev_package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zev_gpumonConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zev_gpumonConfig.cmake
  INSTALL_DESTINATION ${zev_package_dir}
  PATH_VARS ZEV_INSTALL_PLUGIN_DIR)
# The monitor's interface may still change between 0.x releases.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zev_gpumonConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/zev_gpumonConfig.cmake
  ${PROJECT_BINARY_DIR}/zev_gpumonConfigVersion.cmake
  DESTINATION ${zev_package_dir})
