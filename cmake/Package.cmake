# What is installed: the library with its headers and packages, the plug-in bundle, the host, the
# tools and the manual pages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Headers keep their folders below one directory, so that "platform/Path.h" means the same inside
# and outside this tree. Nothing of platform/linux is among them.
set(headers ${CMAKE_INSTALL_INCLUDEDIR}/quorvel)
install(DIRECTORY shared DESTINATION ${headers} COMPONENT library FILES_MATCHING PATTERN "*.h"
  PATTERN ConfigurationForRoot.h EXCLUDE PATTERN Services.h EXCLUDE)
install(DIRECTORY platform DESTINATION ${headers} COMPONENT library FILES_MATCHING PATTERN "*.h"
  PATTERN linux EXCLUDE PATTERN UniqueDescriptor.h EXCLUDE PATTERN WriteWhole.h EXCLUDE)

install(TARGETS quorvel quorvel_platform EXPORT quorvel
  LIBRARY COMPONENT library NAMELINK_COMPONENT library
  INCLUDES DESTINATION ${headers})
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
set_target_properties(quorvel_platform PROPERTIES EXPORT_NAME platform)
install(EXPORT quorvel NAMESPACE quorvel:: FILE quorvelTargets.cmake DESTINATION ${package}
  COMPONENT library)
configure_package_config_file(cmake/quorvelConfig.cmake.in ${CMAKE_BINARY_DIR}/quorvelConfig.cmake
  INSTALL_DESTINATION ${package} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quorvelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quorvelConfig.cmake
  ${CMAKE_BINARY_DIR}/quorvelConfigVersion.cmake DESTINATION ${package} COMPONENT library)

# Paths relative to the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/quorvel.pc.in ${CMAKE_BINARY_DIR}/quorvel.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quorvel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT library)

# The plug-in is loaded, never linked: it stands in a directory of its own.
install(TARGETS Ravelle LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/quorvel)
install(TARGETS migration-host)
file(GLOB manuals CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.1)
install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
