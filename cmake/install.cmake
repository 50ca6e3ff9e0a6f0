# What `cmake --install` lays down: library, program, documented headers, CMake and pkg-config files,
# the service and its user.
include(CMakePackageConfigHelpers)

install(TARGETS kddc EXPORT kddcTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS kddc_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

get_property(headers GLOBAL PROPERTY KDDC_PUBLIC_HEADERS)
foreach(header IN LISTS headers)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kddc/${folder})
endforeach()

configure_package_config_file(cmake/kddcConfig.cmake.in ${PROJECT_BINARY_DIR}/kddcConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kddc)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kddcConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kddcConfig.cmake ${PROJECT_BINARY_DIR}/kddcConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kddc)
install(EXPORT kddcTargets NAMESPACE kddc:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kddc)

configure_file(cmake/kddc.pc.in ${PROJECT_BINARY_DIR}/kddc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kddc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Where systemd looks, whatever the folder for libraries is called.
install(FILES packaging/kddc.service DESTINATION lib/systemd/system)
install(FILES packaging/kddc.sysusers DESTINATION lib/sysusers.d RENAME kddc.conf)
