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
    libquorvel\\.so\\.1 include/quorvel/platform/Path\\.h man1/migration-host\\.1)
  if(NOT "${installed}" MATCHES "${wanted}")
    fail("not installed: ${wanted}")
  endif()
endforeach()
if("${installed}" MATCHES "platform/linux|UniqueDescriptor|\\.cpp")
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

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${work}/consumer -G ${GENERATOR}
  -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM} -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${COMPILER} -DCMAKE_CXX_FLAGS=${FLAGS})
run(${CMAKE_COMMAND} --build ${work}/consumer)
run(${work}/consumer/consumer)

file(GLOB_RECURSE module ${prefix}/quorvel.pc)
cmake_path(GET module PARENT_PATH modules)
set(ENV{PKG_CONFIG_PATH} ${modules})
run(pkg-config --cflags --libs quorvel)
separate_arguments(package UNIX_COMMAND "${output} ${FLAGS}")
run(${COMPILER} -std=c++20 -Wall -Wextra -Wpedantic -Werror ${CONSUMER}/Main.cpp
  -o ${work}/direct ${package})
cmake_path(GET modules PARENT_PATH libraries)
set(ENV{LD_LIBRARY_PATH} ${libraries})
run(${work}/direct)
file(REMOVE_RECURSE ${work})
