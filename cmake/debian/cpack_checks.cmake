# Read by cpack before it makes packages: the DEB generator needs `file`
# (to find the programs among the installed files) and dpkg-shlibdeps (to
# name the libraries they need); a missing one is named with the Debian
# package that provides it.
if(CPACK_GENERATOR STREQUAL "DEB")
  cmake_policy(SET CMP0109 NEW)  # a program is what may be executed
  set(_missing "")
  foreach(_tool_package file:file dpkg-shlibdeps:dpkg-dev dpkg-deb:dpkg)
    string(REPLACE ":" ";" _pair "${_tool_package}")
    list(GET _pair 0 _tool)
    list(GET _pair 1 _package)
    find_program(_found_${_tool} ${_tool})
    if(NOT _found_${_tool})
      list(APPEND _missing "${_tool} (Debian package ${_package})")
    endif()
  endforeach()
  if(_missing)
    list(JOIN _missing ", " _missing)
    message(FATAL_ERROR "cpack -G DEB needs ${_missing}; install with apt-get, "
                        "or run bash tools/install-deps.sh")
  endif()
endif()
