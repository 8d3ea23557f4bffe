# What is installed: the library with its headers and packages, the plug-in bundle, the host, the
# tools and the manual pages.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Nothing generic is on the include path of others: <quorvel/filemanager/QVFileManager.h>.
install(CODE "
  set(QUORVEL_SOURCES \"${CMAKE_SOURCE_DIR}\")
  set(DESTINATION \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")
  include(\"${CMAKE_SOURCE_DIR}/cmake/InstallHeaders.cmake\")" COMPONENT development)

install(TARGETS quorvel quorvel_platform quorvel_linux EXPORT quorvel
  LIBRARY COMPONENT library NAMELINK_COMPONENT development)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/quorvel)
set_target_properties(quorvel_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(quorvel_linux PROPERTIES EXPORT_NAME linux)
install(EXPORT quorvel NAMESPACE quorvel:: FILE quorvelTargets.cmake DESTINATION ${package}
  COMPONENT development)
configure_package_config_file(cmake/quorvelConfig.cmake.in ${CMAKE_BINARY_DIR}/quorvelConfig.cmake
  INSTALL_DESTINATION ${package} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quorvelConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quorvelConfig.cmake
  ${CMAKE_BINARY_DIR}/quorvelConfigVersion.cmake DESTINATION ${package} COMPONENT development)

# Paths relative to the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(package quorvel quorvel-linux)
  configure_file(cmake/${package}.pc.in ${CMAKE_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/${package}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endforeach()
install(FILES docs/library.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT development)
find_program(CMARK cmark-gfm)  # scripts/install-dependencies installs it
if(CMARK)
  set(page ${CMAKE_BINARY_DIR}/library.html)
  set(maker ${CMAKE_SOURCE_DIR}/cmake/Document.cmake)
  set(document ${CMAKE_SOURCE_DIR}/docs/library.md)
  add_custom_command(OUTPUT ${page} DEPENDS ${document} ${maker}
    COMMAND ${CMAKE_COMMAND} -DCMARK=${CMARK} -DSOURCE=${document} -DPAGE=${page} -P ${maker})
  add_custom_target(library_page ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
else()
  message(STATUS "cmark-gfm is not installed: the library's document is installed as it is only")
endif()

# Completion, which each program writes from its own option tables.
set(completions)
foreach(program migration-host quorvelctl legacy-image)
  foreach(place bash:bash-completion/completions:${program} zsh:zsh/site-functions:_${program}
          fish:fish/vendor_completions.d:${program}.fish)
    string(REPLACE ":" ";" place ${place})
    list(GET place 0 shell)
    list(GET place 1 directory)
    list(GET place 2 name)
    set(script ${CMAKE_BINARY_DIR}/completion/${shell}/${name})
    file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/completion/${shell})
    add_custom_command(OUTPUT ${script} DEPENDS ${program}
      COMMAND ${program} --completion ${shell} >${script}.new
      COMMAND ${CMAKE_COMMAND} -E rename ${script}.new ${script})
    list(APPEND completions ${script})
    install(FILES ${script} DESTINATION ${CMAKE_INSTALL_DATADIR}/${directory})
  endforeach()
endforeach()
add_custom_target(completion ALL DEPENDS ${completions})

# The plug-in is loaded, never linked: it stands in a directory of its own.
install(TARGETS Ravelle LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/quorvel)
install(TARGETS migration-host)
file(GLOB manuals CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.1)
if(QUORVEL_DEBIAN)
  # Compressed, as its packages have them.
  foreach(manual ${manuals})
    cmake_path(GET manual FILENAME name)
    execute_process(COMMAND gzip -9nc ${manual} OUTPUT_FILE ${CMAKE_BINARY_DIR}/${name}.gz)
    install(FILES ${CMAKE_BINARY_DIR}/${name}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endforeach()
else()
  install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
