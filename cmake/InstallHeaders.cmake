# Installs the headers as others include them: all below one directory, <quorvel/...>, without what
# cannot be linked. The tree's own folders are told apart by their first step:
#   shared/support/X.h -> quorvel/support/X.h       platform/X.h -> quorvel/platform/X.h
#   platform/linux/services/X.h -> quorvel/linux/X.h
# Needs QUORVEL_SOURCES, and DESTINATION (an absolute path, with DESTDIR).
cmake_policy(VERSION 3.25)
function(install_header source target)
  file(READ ${QUORVEL_SOURCES}/${source} text)
  while(TRUE)
    string(FIND "${text}" "// Not installed:" begin)
    if(begin EQUAL -1)
      break()
    endif()
    string(FIND "${text}" "// Installed again.\n" end)
    math(EXPR end "${end} + 20")
    string(SUBSTRING "${text}" 0 ${begin} head)
    string(STRIP "${head}" head)
    string(SUBSTRING "${text}" ${end} -1 text)
    string(CONCAT text "${head}" "\n" "${text}")
  endwhile()
  string(REGEX REPLACE "#include \"([^\"]*)\"" "#include <\\1>" text "${text}")
  string(REGEX REPLACE "platform/linux/services/" "quorvel/linux/" text "${text}")
  string(REGEX REPLACE "platform/([A-Z*])" "quorvel/platform/\\1" text "${text}")
  string(REGEX REPLACE "shared/(support|filemanager|configuration)/" "quorvel/\\1/" text "${text}")
  file(WRITE ${DESTINATION}/quorvel/${target} "${text}")
endfunction()

file(GLOB headers RELATIVE ${QUORVEL_SOURCES} ${QUORVEL_SOURCES}/shared/*/*.h
  ${QUORVEL_SOURCES}/platform/*.h ${QUORVEL_SOURCES}/platform/linux/services/QVLinuxServices.h)
# Tools of the tree's own sources.
list(FILTER headers EXCLUDE REGEX "/(ConfigurationForRoot|MoveRemains|Services|Uninterrupted|UniqueDescriptor|WriteWhole)\\.h$")
list(APPEND headers platform/Services.h)
foreach(header ${headers})
  string(REGEX REPLACE "^shared/" "" target ${header})
  string(REPLACE "platform/linux/services/" "linux/" target ${target})
  install_header(${header} ${target})
endforeach()
