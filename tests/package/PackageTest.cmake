# Installs the build to a prefix of its own, moves that away, and builds and runs a small program
# from there: once through the CMake package, once through pkg-config.
#   cmake -DBUILD=... -DCONSUMER=... -DCOMPILER=... -DFLAGS=... -DGENERATOR=...
#     -DMAKE_PROGRAM=... -P PackageTest.cmake
# A confined process has no /proc, without which a leak checker ends it as failed.
set(ENV{ASAN_OPTIONS} detect_leaks=0)
execute_process(COMMAND mktemp -d OUTPUT_VARIABLE work OUTPUT_STRIP_TRAILING_WHITESPACE)

function(fail text)
  file(REMOVE_RECURSE ${work})
  message(FATAL_ERROR "${text}")
endfunction()

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output
    ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    fail("${ARGV}\nfailed with ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${work}/first)
file(RENAME ${work}/first ${work}/installed)
set(prefix ${work}/installed)

file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
foreach(wanted bin/migration-host bin/quorvelctl quorvel/Ravelle\\.so
    libquorvel\\.so\\.1 libquorvel-linux\\.so\\.1 include/quorvel/platform/Path\\.h
    include/quorvel/linux/QVLinuxServices\\.h doc/quorvel/library\\.md man1/migration-host\\.1
    bash-completion/completions/quorvelctl)
  if(NOT "${installed}" MATCHES "${wanted}")
    fail("not installed: ${wanted}")
  endif()
endforeach()
if(EXISTS ${BUILD}/library.html AND NOT "${installed}" MATCHES "doc/quorvel/library\\.html")
  fail("the document's page is not installed")
endif()
if("${installed}" MATCHES "platform/linux|shared/|UniqueDescriptor|\\.cpp")
  fail("installed, but none of a consumer's business: ${CMAKE_MATCH_0}")
endif()

# The programs find their libraries, and the host its plug-in, where they are now.
foreach(program migration-host quorvelctl)
  run(${prefix}/bin/${program} --help)
endforeach()
file(MAKE_DIRECTORY ${work}/device/private/var/mobile/Applications)
run(${prefix}/bin/migration-host migrate --root ${work}/device)
file(GLOB_RECURSE plugin ${prefix}/Ravelle.so)
run(ldd ${plugin})
if("${output}" MATCHES "not found")
  fail("the plug-in misses a library:\n${output}")
endif()

# Commands, options and values are completed, in the shells that are there.
foreach(words "migration-host reh=rehearse" "quorvelctl dig=digest" "quorvelctl flags --js=--json"
        "migration-host migrate --progress al=always" "legacy-image --reg=--registered-list"
        "migration-host migrate --force-preflight no-sp=no-space")
  string(REPLACE "=" ";" words ${words})
  list(GET words 0 typed)
  list(GET words 1 wanted)
  string(REGEX REPLACE " .*" "" program ${typed})
  string(REPLACE "-" "_" function _${program})
  run(bash -c "source ${prefix}/share/bash-completion/completions/${program}
    COMP_WORDS=(${typed}) COMP_CWORD=$(($(wc -w <<<'${typed}') - 1)) && ${function} && echo \"\${COMPREPLY[*]}\"")
  if(NOT "${output}" STREQUAL "${wanted}\n")
    fail("bash: ${typed} is completed to ${output}")
  endif()
  find_program(FISH fish)
  if(FISH)
    run(${FISH} --no-config -c "source ${prefix}/share/fish/vendor_completions.d/${program}.fish
      complete --do-complete '${typed}'")
    if(NOT "${output}" MATCHES "^${wanted}(\t|\n)")
      fail("fish: ${typed} is completed to ${output}")
    endif()
  endif()
  find_program(ZSH zsh)
  if(ZSH)
    run(${ZSH} -f -n ${prefix}/share/zsh/site-functions/_${program})
  endif()
endforeach()

# Types that are another size by another _FILE_OFFSET_BITS or _TIME_BITS of the program's.
file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/*.h)
foreach(header ${headers})
  file(READ ${prefix}/include/${header} text)
  if("${text}" MATCHES "struct stat|(off|ino|time|blkcnt)_t|struct time")
    fail("${header} holds ${CMAKE_MATCH_0}, which programs may have otherwise")
  endif()
endforeach()

# Each header alone, with nothing but our own names on the include path; and all together by the
# next standard and by the other compiler (scripts/try-packages has each alone by all of them).
file(COPY ${CONSUMER} DESTINATION ${work}/sources)
set(all)
foreach(header ${headers})
  string(REPLACE "/" "_" name ${header})
  file(WRITE ${work}/sources/consumer/headers/${name}.cpp "#include <${header}>\n")
  string(APPEND all "#include <${header}>\n")
endforeach()
file(WRITE ${work}/all.cpp "${all}")
find_program(clang clang++)
if(NOT clang)
  message("clang++ is not installed: it does not look at the headers")
  set(clang ${COMPILER})
endif()
foreach(by "${COMPILER};-std=c++2b" "${clang};-std=c++2b" "${clang};-std=c++20")
  run(${by} -fsyntax-only -Wall -Wextra -Wpedantic -Werror -I${prefix}/include ${work}/all.cpp)
endforeach()

# The document's programs, each named by its first line.
file(GLOB_RECURSE document ${prefix}/*/library.md)
file(READ ${document} text)
foreach(program files catalog digests)
  string(FIND "${text}" "// ${program}.cpp:" begin)
  string(SUBSTRING "${text}" ${begin} -1 code)
  string(FIND "${code}" "\n```" end)
  string(SUBSTRING "${code}" 0 ${end} code)
  file(WRITE ${work}/sources/consumer/${program}.cpp "${code}\n")
endforeach()

file(MAKE_DIRECTORY ${work}/device/Applications/A.app ${work}/device/private/var/mobile/Library)
file(WRITE ${work}/device/Applications/A.app/Info.plist
  "<plist><dict><key>PKBundleIdentifier</key><string>com.example.a</string></dict></plist>")
set(enter)
execute_process(COMMAND id -u OUTPUT_VARIABLE user OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT user EQUAL 0)
  set(enter unshare --user --map-root-user)
endif()

# What the programs do, by either way of building them.
function(try_programs directory)
  run(${directory}/consumer)
  run(${directory}/files ${CONSUMER} ${work}/copy)
  run(diff -r ${CONSUMER} ${work}/copy)
  execute_process(COMMAND ${directory}/files /nonexistent/item ${work}/copy RESULT_VARIABLE result
    ERROR_VARIABLE message)
  if(result EQUAL 0 OR NOT message MATCHES "clonetree of .* failed: No such file or directory")
    fail("files showed no error: ${message}")
  endif()
  run(${enter} ${directory}/catalog ${work}/device)
  if(NOT "${output}" STREQUAL "com.example.a\n")
    fail("catalog said ${output}")
  endif()
  run(${prefix}/bin/quorvelctl flags --root ${work}/device get haveUpdatedPluginContainersWithParentID)
  run(${directory}/digests ${document} ${document})
  set(ours "${output}")
  run(sha256sum ${document} ${document})
  if(NOT "${output}" STREQUAL "${ours}")
    fail("digests said ${ours}")
  endif()
endfunction()

run(${CMAKE_COMMAND} -S ${work}/sources/consumer -B ${work}/consumer -G ${GENERATOR}
  -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_PREFIX_PATH=${prefix}
  -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${work}/consumer)
try_programs(${work}/consumer)
run(${work}/consumer/preferences ${work}/device ${prefix}/bin/quorvelctl 20)

file(GLOB_RECURSE module ${prefix}/quorvel-linux.pc)
cmake_path(GET module PARENT_PATH modules)
set(ENV{PKG_CONFIG_PATH} ${modules})
run(pkg-config --cflags --libs quorvel-linux)
separate_arguments(package UNIX_COMMAND "${output} ${FLAGS}")
file(MAKE_DIRECTORY ${work}/direct)
foreach(program consumer files catalog digests)
  run(${COMPILER} -std=c++20 -Wall -Wextra -Wpedantic -Werror -pthread
    ${work}/sources/consumer/${program}.cpp -o ${work}/direct/${program} ${package})
endforeach()
cmake_path(GET modules PARENT_PATH libraries)
set(ENV{LD_LIBRARY_PATH} ${libraries})
try_programs(${work}/direct)

# Who uses files alone loads none of the large libraries.
run(ldd ${libraries}/libquorvel.so.1)
if("${output}" MATCHES "png|sqlite|expat|crypto")
  fail("libquorvel needs a library of the platform's:\n${output}")
endif()
file(REMOVE_RECURSE ${work})
