# Installs the build into a scratch prefix outside the source tree and uses it
# as another project would: the example examples/pupil_model, copied out of
# the tree, is built once with find_package(torvel 1.0) and once with
# pkg-config, and both read a fit that the installed torvel made of the
# sample image. Also: the exported files name no absolute path, and every
# installed manual page shows with `man -l`.
# Called with -DBUILD_DIR=... -DSOURCE_DIR=... -DCXX=... -DCXX_FLAGS=... and,
# when the build makes the Python module, -DPYTHON=<its interpreter>.
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(mktemp -d -t torvel-install-check.XXXXXX)
string(STRIP "${out}" work)
set(prefix ${work}/prefix)
run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix ${prefix})

file(GLOB exported ${prefix}/lib*/cmake/torvel/*.cmake ${prefix}/lib*/pkgconfig/torvel.pc)
foreach(file IN LISTS exported)
  file(STRINGS ${file} absolute REGEX "[ ;\"=(]/[A-Za-z]")
  if(absolute)
    message(FATAL_ERROR "${file} names an absolute path:\n${absolute}")
  endif()
endforeach()

file(GLOB pages ${prefix}/share/man/man1/*.1.gz)
if(NOT pages)
  message(FATAL_ERROR "no manual page installed in ${prefix}/share/man/man1")
endif()
foreach(page IN LISTS pages)
  run(${CMAKE_COMMAND} -E env MANPAGER=cat man -l ${page})
  if(NOT out MATCHES "SYNOPSIS")
    message(FATAL_ERROR "man -l ${page} shows no synopsis:\n${out}")
  endif()
endforeach()

file(COPY ${SOURCE_DIR}/examples/pupil_model DESTINATION ${work})
set(example ${work}/pupil_model)
run(${prefix}/bin/torvel ${SOURCE_DIR}/sample/pupil.mrc ${work}/fit.txt)

# The Python module, when the build makes one, imports from where it is
# installed and fits the sample into the program's fit file.
if(PYTHON)
  file(GLOB module ${prefix}/lib/python3*/dist-packages/torvel*.so)
  if(NOT module)
    message(FATAL_ERROR "no Python module installed in ${prefix}/lib/python3*/dist-packages")
  endif()
  get_filename_component(module_dir ${module} DIRECTORY)
  run(${CMAKE_COMMAND} -E env PYTHONPATH=${module_dir} ${PYTHON} -c
      "import sys, torvel\ntorvel.fit(sys.argv[1]).write(sys.argv[2])"
      ${SOURCE_DIR}/sample/pupil.mrc ${work}/python_fit.txt)
  run(${CMAKE_COMMAND} -E compare_files ${work}/fit.txt ${work}/python_fit.txt)
endif()

run(${CMAKE_COMMAND} -S ${example} -B ${work}/cmake-build "-DCMAKE_PREFIX_PATH=${prefix}"
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${work}/cmake-build)
run(${work}/cmake-build/pupil_model ${work}/fit.txt)
set(with_cmake "${out}")

file(GLOB pc_dir ${prefix}/lib*/pkgconfig)
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} pkg-config --cflags --libs torvel)
separate_arguments(pc_flags UNIX_COMMAND "${out}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
run(${CXX} -std=c++20 ${cxx_flags} ${example}/pupil_model.cpp ${pc_flags} -o ${work}/pupil_model_pc)
run(${work}/pupil_model_pc ${work}/fit.txt)

# The sample's amplitude is 0.97 at the centre (sample/README.md).
if(NOT out STREQUAL with_cmake OR NOT out MATCHES "\n   0.00   0.00     0.97[0-9][0-9]  ")
  message(FATAL_ERROR "pupil_model with pkg-config:\n${out}\nwith find_package:\n${with_cmake}")
endif()
file(REMOVE_RECURSE ${work})
