# Debian's build flags, for a build that makes packages:
# -DTORVEL_DPKG_BUILDFLAGS=ON adds what dpkg-buildflags gives to the compile
# and link flags, as debhelper does for a Debian package: fortified libc
# calls, the stack protector, read-only relocations and immediate binding
# (DEB_BUILD_MAINT_OPTIONS=hardening=+all, unless that variable in the
# environment says otherwise). The build type's own flags (-O3 for Release)
# still follow them.
option(TORVEL_DPKG_BUILDFLAGS "Compile and link with Debian's package build flags (dpkg-buildflags)" OFF)
if(TORVEL_DPKG_BUILDFLAGS)
  find_program(TORVEL_DPKG_BUILDFLAGS_PROGRAM dpkg-buildflags)
  if(NOT TORVEL_DPKG_BUILDFLAGS_PROGRAM)
    message(FATAL_ERROR "TORVEL_DPKG_BUILDFLAGS needs dpkg-buildflags (Debian package dpkg-dev)")
  endif()
  set(_maint_options "hardening=+all $ENV{DEB_BUILD_MAINT_OPTIONS}")
  foreach(_kind CPPFLAGS CXXFLAGS LDFLAGS)
    # Run in the source folder: the flags map its path to "." in debug data.
    execute_process(COMMAND ${CMAKE_COMMAND} -E env "DEB_BUILD_MAINT_OPTIONS=${_maint_options}"
                            ${TORVEL_DPKG_BUILDFLAGS_PROGRAM} --get ${_kind}
                    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                    OUTPUT_VARIABLE _dpkg_${_kind} OUTPUT_STRIP_TRAILING_WHITESPACE
                    COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  string(APPEND CMAKE_CXX_FLAGS " ${_dpkg_CPPFLAGS} ${_dpkg_CXXFLAGS}")
  foreach(_kind EXE SHARED MODULE)
    string(APPEND CMAKE_${_kind}_LINKER_FLAGS " ${_dpkg_LDFLAGS}")
  endforeach()
  message(STATUS "dpkg-buildflags: ${_dpkg_CPPFLAGS} ${_dpkg_CXXFLAGS}; ${_dpkg_LDFLAGS}")
endif()
