# What `cmake --install` puts where: the programs, the plugin host below the product's system
# root, and the SDKs as a CMake package (find_package(veq) gives veq::sdk for apps and veq::plugin).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VEQ_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
set(VEQ_INSTALL_BINDIR ${CMAKE_INSTALL_BINDIR})
set(VEQ_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/veq)

install(TARGETS veqd veqctl veq-sign RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS $<TARGET_FILE:VEQPluginHost> DESTINATION lib/veq/Service/Hosts/${VEQ_HOST_PLATFORM}
        RENAME VEQPluginHost.exe)
install(FILES sdk/plugin/veq_plugin.h sdk/plugin/Plugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veq)

# The app SDK: its static library with the platform's, and the headers its own headers name.
set_target_properties(veq_warnings PROPERTIES EXPORT_NAME warnings)
install(TARGETS veq_sdk veq_platform veq_warnings EXPORT veqTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT veqTargets NAMESPACE veq:: DESTINATION ${VEQ_INSTALL_CMAKEDIR})
file(GLOB VEQ_SDK_HEADERS ${CMAKE_SOURCE_DIR}/sdk/*.h)
install(FILES ${VEQ_SDK_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veq/sdk)
install(FILES platform/transport/Message.h platform/transport/Notification.h platform/transport/PeerCredentials.h platform/transport/Result.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/veq/platform/transport)

configure_package_config_file(cmake/package/veqConfig.cmake.in ${CMAKE_BINARY_DIR}/veqConfig.cmake
  INSTALL_DESTINATION ${VEQ_INSTALL_CMAKEDIR} PATH_VARS VEQ_INSTALL_INCLUDEDIR VEQ_INSTALL_BINDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/veqConfigVersion.cmake VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/veqConfig.cmake ${CMAKE_BINARY_DIR}/veqConfigVersion.cmake
              cmake/package/VeqPlugin.cmake
        DESTINATION ${VEQ_INSTALL_CMAKEDIR})
