# Installs the build tree into a scratch prefix, then configures, builds and
# runs a separate project that uses find_package(torvel) and torvel::torvel.
# Called with -DBUILD_DIR=... -DWORK_DIR=... -DSOURCE_DIR=... -DCXX_FLAGS=...
# (the flags the library was built with, sanitizers included).
file(REMOVE_RECURSE "${WORK_DIR}")
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
endfunction()
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/prefix")
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/consumer" -B "${WORK_DIR}/build"
    "-DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer")
file(REMOVE_RECURSE "${WORK_DIR}")
