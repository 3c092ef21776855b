# Install rules: libraries, public headers, a CMake package and pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS platform platform_static loreg loreg_static
  EXPORT loregTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT loregTargets NAMESPACE loreg::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loreg)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/loregConfig.cmake.in
  ${PROJECT_BINARY_DIR}/loregConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loreg)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/loregConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/loregConfig.cmake
  ${PROJECT_BINARY_DIR}/loregConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/loreg)
configure_file(${PROJECT_SOURCE_DIR}/cmake/loreg.pc.in ${PROJECT_BINARY_DIR}/loreg.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/loreg.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
