# Debian packages by CPack: `cpack -G DEB` in a build directory makes
#   torvel        the programs, their manual pages, the documentation, the
#                 example and the sample image;
#   libtorvel-dev the static library, its headers, CMake package, torvel.pc
#                 and the example;
#   python3-torvel the Python module, when it is built.
# Each package gets what Debian asks of one in /usr/share/doc/PACKAGE: a
# copyright file in the machine-readable format (cmake/debian/copyright.cmake)
# and the changelog (cmake/debian/changelog.in, whose top entry gives the
# package version). dpkg-shlibdeps names the shared libraries the programs
# need (libc, libstdc++, the LAPACK they were linked with); the dev package
# asks for the LAPACK and libtiff development packages that its users link.
# Programs are
# stripped; a build for packages takes Debian's flags
# (cmake/buildflags.cmake).
#
# A further package: its component in CPACK_COMPONENTS_ALL, its name and
# description below, and the libraries its programs link in
# TORVEL_DEB_LINKS_<component>.

# The maintainer, as Debian's own tools (dch, debmake) find one: DEBEMAIL
# ("Name <address>", or an address with the name in DEBFULLNAME), else EMAIL
# and NAME.
set(_name "$ENV{DEBFULLNAME}")
if(_name STREQUAL "")
  set(_name "$ENV{NAME}")
endif()
set(_mail "$ENV{DEBEMAIL}")
if(_mail STREQUAL "")
  set(_mail "$ENV{EMAIL}")
endif()
if(_mail MATCHES "^(.+) <(.+)>$")
  set(_name "${CMAKE_MATCH_1}")
  set(_mail "${CMAKE_MATCH_2}")
endif()
if(_mail STREQUAL "")
  # No one named: the project, at an address that says it reaches no one.
  set(_maintainer "The torvel developers <torvel@maintainer.invalid>")
else()
  if(_name STREQUAL "")
    set(_name "The torvel developers")
  endif()
  set(_maintainer "${_name} <${_mail}>")
endif()
set(TORVEL_DEB_MAINTAINER "${_maintainer}" CACHE STRING
    "Maintainer of the Debian packages, \"Name <address>\" (default from DEBFULLNAME and DEBEMAIL)")
if(NOT TORVEL_DEB_MAINTAINER MATCHES "^[^<>@]*[^<>@ ] <[^<>@ ]+@[^<>@ ]+\\.[^<>@ .]+>$")
  message(FATAL_ERROR "TORVEL_DEB_MAINTAINER \"${TORVEL_DEB_MAINTAINER}\" is not of the form "
          "\"Full Name <address@domain.tld>\"")
endif()

# The version: the changelog's top entry, whose upstream part must be the
# project's.
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
file(STRINGS ${PROJECT_BINARY_DIR}/debian/changelog _top LIMIT_COUNT 1)
if(NOT _top MATCHES "^torvel \\(([^-]+)-([^)]+)\\) ")
  message(FATAL_ERROR "cmake/debian/changelog.in: first line \"${_top}\" is not \"torvel (VERSION-REVISION) ...\"")
elseif(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "cmake/debian/changelog.in: top entry ${CMAKE_MATCH_1}, project version ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
execute_process(COMMAND gzip -9nc ${PROJECT_BINARY_DIR}/debian/changelog
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_PACKAGE_NAME torvel)
set(CPACK_PACKAGE_VENDOR "The torvel developers")
set(CPACK_PACKAGE_CONTACT "${TORVEL_DEB_MAINTAINER}")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL torvel dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE torvel)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_TORVEL_PACKAGE_NAME torvel)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtorvel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# First line the synopsis, then the long description (no package-wide
# summary is set: CPack would put it in front of both).
string(JOIN "\n" CPACK_DEBIAN_TORVEL_DESCRIPTION
  "fits Zernike series to multi-wavelength microscope pupil functions"
  "torvel reads a measured pupil function image of a microscope objective"
  "(MRC2014 with a multi-wavelength block), unwraps its phase and fits Zernike"
  "series to amplitude and phase by least squares, wavelength by wavelength,"
  "writing a parametric pupil text file and, on request, a residual image."
  "torvel-render turns a fit back into a pupil function image; torvel-report"
  "gives its figures of merit, JSON and CSV exports and a PNG figure.")
string(JOIN "\n" CPACK_DEBIAN_DEV_DESCRIPTION
  "torvel's pupil fitting library (development files)"
  "The static library libtorvel with its headers <torvel/NAME.hpp>, a CMake"
  "package (find_package(torvel)) and a pkg-config file (torvel.pc): Zernike"
  "series, pupil fits, the parametric pupil file and the image layer (MRC2014,"
  "and TIFF stacks).")

# The programs look for OpenBLAS first in the directory of the build they
# were linked with; dpkg-shlibdeps names only OpenBLAS as such. The dev
# package asks for the LAPACK and libtiff development packages that its users
# link.
if(LAPACK_LIBRARIES MATCHES "openblas-([a-z]+)/")
  set(_lapack "OpenBLAS, for BLAS and LAPACK (libopenblas0-${CMAKE_MATCH_1}): BSD-3-Clause")
  set(CPACK_DEBIAN_TORVEL_PACKAGE_DEPENDS "libopenblas0-${CMAKE_MATCH_1}")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libopenblas-dev, libtiff-dev, libfftw3-dev")
  if(CMAKE_MATCH_1 STREQUAL "openmp")
    # That run path is what lintian warns of; the reason is next to the override.
    file(READ ${CMAKE_CURRENT_LIST_DIR}/debian/torvel.lintian-overrides TORVEL_DEB_OVERRIDES_torvel)
    # The Python module links the same OpenBLAS build for the same reason.
    set(TORVEL_DEB_OVERRIDES_python "
# The Python module runs torvel's fit as the programs do, so it keeps their
# run path to the OpenMP build of OpenBLAS (see the torvel package's override).
python3-torvel: custom-library-search-path RUNPATH /usr/lib/*/openblas-openmp [usr/lib/python3/dist-packages/*]
")
  endif()
elseif(LAPACK_LIBRARIES MATCHES "openblas")
  set(_lapack "OpenBLAS, for BLAS and LAPACK (libopenblas0): BSD-3-Clause")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libopenblas-dev, libtiff-dev, libfftw3-dev")
else()
  set(_lapack "LAPACK and BLAS (liblapack3, libblas3): BSD-3-Clause")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "liblapack-dev, libtiff-dev, libfftw3-dev")
endif()
# What each package's programs link, a line each in its copyright file: the
# library, the Debian package whose copyright file holds its terms, and its
# licence. A program that links a further library adds its line here.
set(_gcc_runtime "GCC's runtime, libstdc++ and libgcc (libstdc++6, libgcc-s1)")
if(OpenMP_CXX_FOUND)
  set(_gcc_runtime "GCC's runtime, libstdc++, libgcc and the OpenMP runtime libgomp (libstdc++6, libgcc-s1, libgomp1)")
endif()
string(APPEND _gcc_runtime ": GPL-3+ with the GCC Runtime Library Exception 3.1, which sets no condition on programs compiled with GCC")
set(_fftw "FFTW, for the transforms of torvel-psf and torvel-retrieve (libfftw3-single3): GPL-2+")
set(_tiff "libtiff, for TIFF stacks (libtiff6): libtiff (BSD-like)")
set(TORVEL_DEB_LINKS_torvel
  "${_lapack}"
  "cairo, for the figures (libcairo2): LGPL-2.1 or MPL-1.1"
  "${_fftw}" "${_tiff}"
  "${_gcc_runtime}")
# libtorvel.a holds torvel's code only; the programs that link it link these.
set(TORVEL_DEB_LINKS_dev "${_lapack}" "${_fftw}" "${_tiff}" "${_gcc_runtime}")
# Code of other projects compiled into a program: the installed file,
# its copyright holders, the licence (its text in cmake/debian/NAME.txt)
# and where the code comes from, separated by "|".
set(TORVEL_DEB_CONTAINS_torvel
  "usr/bin/torvel-report|2013-2022 Niels Lohmann|Expat|the header-only JSON library nlohmann-json (nlohmann-json3-dev), compiled in")

# The Python module is built for one Python version (its file name says
# which), with the numpy of the system.
if(TARGET torvel_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-torvel)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  list(GET TORVEL_PYTHON_VERSIONS 0 _built_for)
  list(GET TORVEL_PYTHON_VERSIONS 1 _next)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${_built_for}), python3 (<< ${_next}), python3-numpy")
  if(CPACK_DEBIAN_TORVEL_PACKAGE_DEPENDS)
    string(APPEND CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS ", ${CPACK_DEBIAN_TORVEL_PACKAGE_DEPENDS}")
  endif()
  set(TORVEL_DEB_LINKS_python "${_lapack}" "${_fftw}" "${_tiff}" "${_gcc_runtime}")
  # pybind11 is under BSD-3-Clause as torvel is; nlohmann-json comes in with the report.
  set(TORVEL_DEB_CONTAINS_python
    "usr/lib/python3/dist-packages/*|2016 Wenzel Jakob\n 2013-2022 Niels Lohmann|Expat|the header-only libraries pybind11 (pybind11-dev, BSD-3-Clause) and nlohmann-json (nlohmann-json3-dev, Expat), compiled in")
  string(JOIN "\n" CPACK_DEBIAN_PYTHON_DESCRIPTION
    "Python module of torvel, Zernike fits of microscope pupil functions"
    "import torvel: the torvel library on numpy arrays and files. fit() gives"
    "exactly the coefficients the torvel program writes; render() and report()"
    "do what torvel-render and torvel-report do, on a model in memory.")
endif()

# Where the programs are stripped (cpack, or cmake --install --strip), they
# also lose the compilers' notes, and the static library its debug data and
# notes, as Debian's dh_strip treats them.
function(_torvel_strip_on_install component)
  set(files "")
  foreach(file IN LISTS ARGN)
    string(APPEND files " \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\"")
  endforeach()
  install(CODE "
    if(CMAKE_INSTALL_DO_STRIP)
      execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug --remove-section=.comment
                              --remove-section=.note --enable-deterministic-archives ${files}
                      COMMAND_ERROR_IS_FATAL ANY)
    endif()" COMPONENT ${component})
endfunction()
set(_programs "")
foreach(_program IN LISTS TORVEL_PROGRAMS)
  list(APPEND _programs ${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${_program}>)
endforeach()
_torvel_strip_on_install(torvel ${_programs})
_torvel_strip_on_install(dev ${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:torvel>)
if(TARGET torvel_python)
  _torvel_strip_on_install(python ${TORVEL_PYTHON_INSTALL_DIR}/$<TARGET_FILE_NAME:torvel_python>)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/debian/copyright.cmake)
foreach(_component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${_component} _upper)
  set(_package ${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
  torvel_deb_copyright(${PROJECT_BINARY_DIR}/debian/${_package}/copyright
                       "${TORVEL_DEB_LINKS_${_component}}" "${TORVEL_DEB_CONTAINS_${_component}}")
  install(FILES ${PROJECT_BINARY_DIR}/debian/${_package}/copyright
                ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_package} COMPONENT ${_component})
  # lintian's overrides, each with its reason: those of every package, then
  # the package's own.
  file(READ ${CMAKE_CURRENT_LIST_DIR}/debian/lintian-overrides.in _overrides)
  string(APPEND _overrides "${TORVEL_DEB_OVERRIDES_${_component}}")
  string(CONFIGURE "${_overrides}" _overrides @ONLY)
  torvel_write_if_changed(${PROJECT_BINARY_DIR}/debian/${_package}/lintian-overrides "${_overrides}")
  install(FILES ${PROJECT_BINARY_DIR}/debian/${_package}/lintian-overrides
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${_package}
          COMPONENT ${_component})
endforeach()

# cpack needs `file` and dpkg-shlibdeps, which a minimal system lacks; it is
# told what to install rather than stopping at the first missing tool.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/debian/cpack_checks.cmake)
include(CPack)
