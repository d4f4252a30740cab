# Installation: the shared library, the public headers (internal folders excluded),
# the CMake package ZMXUTI_CoreUtils (target ZMXUTI::CoreUtils) and the pkg-config file.
include(CMakePackageConfigHelpers)
set(ZMX_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ZMXUTI_CoreUtils)
set(ZMX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZMXUTI_CoreUtils)

install(TARGETS ZMXUTI_CoreUtils EXPORT ZMXUTI_CoreUtilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ZMXUTI_CoreUtils.h DESTINATION ${ZMX_INSTALL_INCLUDEDIR})
foreach(dir core mem containers strings streams unittest)
  install(DIRECTORY ${dir}/ DESTINATION ${ZMX_INSTALL_INCLUDEDIR}/${dir}
    FILES_MATCHING PATTERN "*.h" PATTERN "internal" EXCLUDE)
endforeach()
install(EXPORT ZMXUTI_CoreUtilsTargets NAMESPACE ZMXUTI:: DESTINATION ${ZMX_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/ZMXUTI_CoreUtilsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtilsConfig.cmake
  INSTALL_DESTINATION ${ZMX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtilsConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtilsConfigVersion.cmake
  DESTINATION ${ZMX_INSTALL_CMAKEDIR})
# The .pc file finds its prefix relative to itself, so an installed tree can move.
file(RELATIVE_PATH ZMX_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(cmake/ZMXUTI_CoreUtils.pc.in ${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtils.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZMXUTI_CoreUtils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
