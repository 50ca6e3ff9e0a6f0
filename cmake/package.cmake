# What `cpack -G DEB` makes: kddc (the program), libkddc0 (the shared library) and libkddc-dev.
# `./dev package` configures for it: with prefix /usr, where a distribution's files go.
set(CPACK_PACKAGE_NAME kddc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(KDDC_MAINTAINER "The kddc authors <maintainers@kddc.example>"
    CACHE STRING "Who maintains the packages")
set(CPACK_PACKAGE_CONTACT "${KDDC_MAINTAINER}")
# Otherwise it would stand before the synopsis of each package.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_COMPONENTS_ALL library development program)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The revision is that of the newest entry of the changelog, which must be of this version.
file(STRINGS packaging/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^kddc \\(${PROJECT_VERSION}-([0-9]+)\\)")
  message(FATAL_ERROR "packaging/changelog has no entry for ${PROJECT_VERSION}: ${newest}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME kddc)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_DESCRIPTION
    "tell what changed on a volume, from a catalogue instead of a tree walk
kddc keeps, for each volume, a SQLite catalogue of every file and folder, and
follows the disk by the kernel's events. Backup, replication and indexing jobs
ask it what changed since a time.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkddc0)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
    "catalogue of every file of a volume - shared library
libkddc keeps a SQLite catalogue of every file and folder of a volume, and
brings it up to date from journal records.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkddc-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libkddc0 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libsqlite3-dev, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "catalogue of every file of a volume - development files
The headers of libkddc, and what find_package(kddc) and pkg-config need.")

foreach(package IN ITEMS kddc:program libkddc0:library libkddc-dev:development)
  string(REGEX REPLACE ":.*" "" name ${package})
  string(REGEX REPLACE ".*:" "" component ${package})
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/packaging/changelog.gz
                ${PROJECT_BINARY_DIR}/packaging/changelog.Debian.gz
          DESTINATION ${documents} COMPONENT ${component})
  install(FILES packaging/lintian-overrides COMPONENT ${component} RENAME ${name}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides)
endforeach()
include(CPack)
