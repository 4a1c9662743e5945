# What `cmake --install` puts where: the programs, the plugin host below the product's system
# root, and the plugin SDK as a CMake package (find_package(veq) gives veq::plugin).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VEQ_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
set(VEQ_INSTALL_BINDIR ${CMAKE_INSTALL_BINDIR})
set(VEQ_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/veq)

install(TARGETS veqd veqctl veq-sign RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS $<TARGET_FILE:VEQPluginHost> DESTINATION lib/veq/Service/Hosts/${VEQ_HOST_PLATFORM}
        RENAME VEQPluginHost.exe)
install(FILES sdk/plugin/veq_plugin.h sdk/plugin/Plugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veq)

configure_package_config_file(cmake/package/veqConfig.cmake.in ${CMAKE_BINARY_DIR}/veqConfig.cmake
  INSTALL_DESTINATION ${VEQ_INSTALL_CMAKEDIR} PATH_VARS VEQ_INSTALL_INCLUDEDIR VEQ_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/veqConfigVersion.cmake VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/veqConfig.cmake ${CMAKE_BINARY_DIR}/veqConfigVersion.cmake
              cmake/package/VeqPlugin.cmake
        DESTINATION ${VEQ_INSTALL_CMAKEDIR})
