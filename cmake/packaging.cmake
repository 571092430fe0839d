# Debian packages by CPack: `cpack -G DEB` in a build directory makes
#   torvel        the programs, their manual pages and the sample image;
#   libtorvel-dev the static library, its headers, CMake package and torvel.pc;
#   python3-torvel the Python module, when it is built.
# dpkg-shlibdeps names the shared libraries the programs need (libc, libstdc++,
# the LAPACK they were linked with); the dev package asks for the LAPACK
# development package that its users link.
set(CPACK_PACKAGE_NAME torvel)
set(CPACK_PACKAGE_VENDOR "torvel developers")
set(CPACK_PACKAGE_CONTACT "torvel developers <torvel@localhost>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL torvel dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
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
  "writing a parametric pupil text file and, on request, a residual image.")
string(JOIN "\n" CPACK_DEBIAN_DEV_DESCRIPTION
  "torvel's pupil fitting library (development files)"
  "The static library libtorvel with its headers <torvel/NAME.hpp>, a CMake"
  "package (find_package(torvel)) and a pkg-config file (torvel.pc): Zernike"
  "series, pupil fits, the parametric pupil file and the MRC2014 image layer.")
# The programs look for OpenBLAS first in the directory of the build they
# were linked with; dpkg-shlibdeps names only OpenBLAS as such.
if(LAPACK_LIBRARIES MATCHES "openblas-([a-z]+)/")
  set(CPACK_DEBIAN_TORVEL_PACKAGE_DEPENDS "libopenblas0-${CMAKE_MATCH_1}")
endif()
if(LAPACK_LIBRARIES MATCHES "openblas")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libopenblas-dev")
else()
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "liblapack-dev")
endif()
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
  string(JOIN "\n" CPACK_DEBIAN_PYTHON_DESCRIPTION
    "Python module of torvel, Zernike fits of microscope pupil functions"
    "import torvel: the torvel library on numpy arrays and files. fit() gives"
    "exactly the coefficients the torvel program writes; render() and report()"
    "do what torvel-render and torvel-report do, on a model in memory.")
endif()
include(CPack)
