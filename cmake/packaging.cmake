# Debian packages by CPack: `cpack -G DEB` in a build directory makes
#   torvel        the programs, their manual pages and the sample image;
#   libtorvel-dev the static library, its headers, CMake package and torvel.pc.
# dpkg-shlibdeps names the shared libraries the programs need (libc, libstdc++,
# the LAPACK they were linked with); the dev package asks for the LAPACK
# development package that its users link.
set(CPACK_PACKAGE_NAME torvel)
set(CPACK_PACKAGE_VENDOR "torvel developers")
set(CPACK_PACKAGE_CONTACT "torvel developers <torvel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Zernike fits of multi-wavelength microscope pupil functions")
set(CPACK_PACKAGE_DESCRIPTION
    "torvel reads a measured pupil function image of a microscope objective, unwraps\n"
    "its phase and fits Zernike series to amplitude and phase, wavelength by\n"
    "wavelength, writing a parametric pupil text file.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
# Installed where the build was configured to install (the manual page names
# that place): configure with -DCMAKE_INSTALL_PREFIX=/usr for a Debian package.
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL torvel dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TORVEL_PACKAGE_NAME torvel)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtorvel-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} (development files)\n"
    "The static library libtorvel with its headers <torvel/NAME.hpp>, a CMake\n"
    "package (find_package(torvel)) and a pkg-config file (torvel.pc).")
string(JOIN "" CPACK_COMPONENT_DEV_DESCRIPTION ${CPACK_COMPONENT_DEV_DESCRIPTION})
if(LAPACK_LIBRARIES MATCHES "openblas")
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libopenblas-dev")
else()
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "liblapack-dev")
endif()
include(CPack)
