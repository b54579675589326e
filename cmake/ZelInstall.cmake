include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# With the stand-in, its libraries are installed beside libzel_utils and find each other
# there (libzel_utils -> host services -> libkro) whatever the consumer's own search path; its
# headers go to include/zel_platform/ (kro/, host/), never to the generic include/kro/ and
# include/host/ where a real platform's would be, and its test probes (kro/probe.h,
# host/probe.h, host/fu_probe.h) are not installed at all. With the host's platform
# (ZEL_PLATFORM=host) only libzel_utils and its headers are installed.
if(ZEL_PLATFORM STREQUAL "standin")
  set(zel_install_targets zel_utils kro host_services zel_platform_headers)
  set_target_properties(zel_utils kro host_services PROPERTIES INSTALL_RPATH "$ORIGIN")
  set(ZEL_PC_CFLAGS "-I\${includedir} -I\${includedir}/zel_platform")
  set(ZEL_PC_PLATFORM_LIBS "-lkro -lhost_services")
else()
  set(zel_install_targets zel_utils zel_platform_headers)
  set(ZEL_PC_CFLAGS "-I\${includedir} -I${ZEL_HOST_PLATFORM_INCLUDE_DIR}")
  set(ZEL_PC_PLATFORM_LIBS "${ZEL_HOST_SERVICES_LIBRARY} ${ZEL_HOST_KRO_LIBRARY}")
endif()

install(TARGETS ${zel_install_targets}
  EXPORT zel_utils_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/zel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(ZEL_PLATFORM STREQUAL "standin")
  install(DIRECTORY platform/include/kro platform/include/host
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zel_platform
    PATTERN "probe.h" EXCLUDE
    PATTERN "fu_probe.h" EXCLUDE)
endif()

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
