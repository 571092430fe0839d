# Makes the Debian packages as the README says, in a build folder of its own
# (kept between runs, so that a second run builds only what changed), and runs
# lintian on every package made: any error or warning fails the test (the
# tags lintian is told to ignore are in the packages' override files, each
# with its reason).
# Called with -DSOURCE_DIR=... -DWORK_DIR=... [-DLAUNCHER=compiler launcher]
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

find_program(LINTIAN lintian)
if(NOT LINTIAN)
  message(FATAL_ERROR "lintian not found (Debian package lintian; bash tools/install-deps.sh installs it)")
endif()

set(build ${WORK_DIR}/build)
set(launcher "")
if(LAUNCHER)
  set(launcher -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build} -DCMAKE_INSTALL_PREFIX=/usr
    -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DTORVEL_BUILD_BENCHMARKS=OFF
    -DTORVEL_DPKG_BUILDFLAGS=ON ${launcher})
run(${CMAKE_COMMAND} --build ${build} -j2)
file(GLOB old ${build}/*.deb)
if(old)
  file(REMOVE ${old})
endif()
run(${CMAKE_COMMAND} -E chdir ${build} cpack -G DEB)
file(GLOB debs ${build}/*.deb)
list(LENGTH debs count)
if(count LESS 2)
  message(FATAL_ERROR "cpack -G DEB made ${count} packages, not torvel and libtorvel-dev:\n${out}")
endif()

execute_process(COMMAND ${LINTIAN} --fail-on error,warning --display-info ${debs}
                RESULT_VARIABLE status OUTPUT_VARIABLE tags ERROR_VARIABLE err)
message("lintian on ${count} packages (status ${status}):\n${tags}")
if(NOT status EQUAL 0)
  message(FATAL_ERROR "lintian reports errors or warnings:\n${tags}\n${err}")
endif()
