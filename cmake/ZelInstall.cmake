include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The installed libraries find each other (libzel_utils -> host services -> libkro) beside
# themselves, whatever the consumer's own search path.
set_target_properties(zel_utils kro host_services PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS zel_utils kro host_services zel_platform_headers
  EXPORT zel_utils_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/zel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/include/kro platform/include/host DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT zel_utils_targets
  NAMESPACE zel::
  FILE zel_utilsTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zel_utils)
configure_package_config_file(cmake/zel_utilsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zel_utilsConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zel_utils)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zel_utilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/zel_utilsConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zel_utilsConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zel_utils)

# Relocatable: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH ZEL_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zel_utils.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zel_utils.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zel_utils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
