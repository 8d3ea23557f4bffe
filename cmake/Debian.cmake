# Debian packages, made by scripts/package: libquorvel1, libquorvel-dev and quorvel-tools.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel)
set(CPACK_PACKAGE_CONTACT "Quorvel developers <developers@quorvel.velto.com>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library development tools)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# What each needs of other packages is read from its files; our own libraries are told here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/bin)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(library libquorvel${PROJECT_VERSION_MAJOR})
file(WRITE ${CMAKE_BINARY_DIR}/control/triggers "activate-noawait ldconfig\n")
file(WRITE ${CMAKE_BINARY_DIR}/control/shlibs
  "libquorvel ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n"
  "libquorvel-linux ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  "${CMAKE_BINARY_DIR}/control/triggers;${CMAKE_BINARY_DIR}/control/shlibs")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_TOOLS_DEPENDS library)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# libcrypto is loaded by name when digests are wanted.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS libssl3)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libquorvel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quorvel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "app-installation service: shared code
File operations, configuration, errors and logs of the app-installation
service, and the services of the platform that they need, on Linux.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "app-installation service: development files
Headers, packages and document of the shared code of the app-installation
service.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "app-installation service: migration and tools
The migration host with its plug-in, the shared operations from a shell, and
a maker of device trees in the legacy layout.")

# Compressed as Debian has them, and only for its packages: others read them as they are.
function(install_compressed source name destination component)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/compressed/${component})
  set(made ${CMAKE_BINARY_DIR}/compressed/${component}/${name}.gz)
  execute_process(COMMAND gzip -9nc ${source} OUTPUT_FILE ${made})
  install(FILES ${made} DESTINATION ${destination} COMPONENT ${component})
endfunction()

if(QUORVEL_DEBIAN)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  file(WRITE ${CMAKE_BINARY_DIR}/changelog.Debian "quorvel (${PROJECT_VERSION}-1) unstable; \
urgency=medium\n\n  * See CHANGELOG.md in libquorvel-dev.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  foreach(component library development tools)
    string(TOUPPER ${component} upper)
    set(documents ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES cmake/copyright DESTINATION ${documents} COMPONENT ${component})
    install_compressed(${CMAKE_BINARY_DIR}/changelog.Debian changelog.Debian ${documents}
      ${component})
  endforeach()
endif()
include(CPack)
