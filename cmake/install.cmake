# What `cmake --install` lays down: library, program, documented headers, CMake and pkg-config files,
# manual, completion, examples, the service and its user. Each thing belongs to a component, which
# becomes a package of its own.
include(CMakePackageConfigHelpers)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME program)

install(TARGETS kddc EXPORT kddcTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS kddc_program RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

get_property(headers GLOBAL PROPERTY KDDC_PUBLIC_HEADERS)
foreach(header IN LISTS headers)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kddc/${folder}
          COMPONENT development)
endforeach()

set(package_files ${CMAKE_INSTALL_LIBDIR}/cmake/kddc)
configure_package_config_file(cmake/kddcConfig.cmake.in ${PROJECT_BINARY_DIR}/kddcConfig.cmake
                              INSTALL_DESTINATION ${package_files})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kddcConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kddcConfig.cmake ${PROJECT_BINARY_DIR}/kddcConfigVersion.cmake
        DESTINATION ${package_files} COMPONENT development)
install(EXPORT kddcTargets NAMESPACE kddc:: DESTINATION ${package_files} COMPONENT development)

configure_file(cmake/kddc.pc.in ${PROJECT_BINARY_DIR}/kddc.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kddc.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# kddc_compressed(NAME SOURCE): SOURCE as packaging/NAME.gz of the build folder, the same on each run.
function(kddc_compressed name source)
  set(made ${PROJECT_BINARY_DIR}/packaging/${name}.gz)
  add_custom_command(OUTPUT ${made} DEPENDS ${PROJECT_SOURCE_DIR}/${source}
                     COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${source} > ${made} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY KDDC_COMPRESSED ${made})
endfunction()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging)
kddc_compressed(kddc.1 packaging/kddc.1)
kddc_compressed(kddc-formats.5 packaging/kddc-formats.5)
kddc_compressed(changelog CHANGELOG.md)
kddc_compressed(changelog.Debian packaging/changelog)
get_property(compressed GLOBAL PROPERTY KDDC_COMPRESSED)
add_custom_target(kddc_manual ALL DEPENDS ${compressed})

set(made ${PROJECT_BINARY_DIR}/packaging)
install(FILES ${made}/kddc.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${made}/kddc-formats.5.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES packaging/kddc.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME kddc)
install(FILES packaging/settings.ini DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN *.md
        PATTERN decisions EXCLUDE)

# Where systemd looks, whatever the folder for libraries is called.
install(FILES packaging/kddc.service DESTINATION lib/systemd/system)
install(FILES packaging/kddc.sysusers DESTINATION lib/sysusers.d RENAME kddc.conf)
