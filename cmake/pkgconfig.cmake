# torvel.pc, installed to <libdir>/pkgconfig. Its prefix is found from the
# file's own place, so the same file serves any install prefix.
#
# libtorvel is static, so everything it links belongs in Libs and Requires:
# `pkg-config --libs` leaves out Libs.private and Requires.private unless
# asked for --static. A dependency that has a pkg-config module is appended to
# TORVEL_PC_REQUIRES (e.g. cairo) before this file is included.
set(_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH TORVEL_PC_PREFIX ${CMAKE_INSTALL_PREFIX}/${_pc_dir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TORVEL_PC_PREFIX "${TORVEL_PC_PREFIX}")

# LAPACK has no one pkg-config name across vendors: its libraries are named
# by -l, as FindLAPACK found them, without the build machine's paths.
set(_lapack_flags "")
foreach(_lib IN LISTS LAPACK_LIBRARIES LAPACK_LINKER_FLAGS)
  if(_lib MATCHES "^-")
    list(APPEND _lapack_flags "${_lib}")
  elseif(_lib MATCHES "/lib([^/]+)\\.(so|a)(\\.[0-9.]+)?$")
    list(APPEND _lapack_flags "-l${CMAKE_MATCH_1}")
  elseif(_lib)
    message(FATAL_ERROR "torvel.pc: cannot name LAPACK library ${_lib} by -l")
  endif()
endforeach()
list(REMOVE_DUPLICATES _lapack_flags)
list(JOIN _lapack_flags " " TORVEL_PC_LAPACK_LIBS)
list(JOIN TORVEL_PC_REQUIRES ", " TORVEL_PC_REQUIRES)
# The OpenMP runtime, by the compiler's own flag, when the library uses it.
set(TORVEL_PC_OPENMP_FLAGS "")
if(OpenMP_CXX_FOUND)
  set(TORVEL_PC_OPENMP_FLAGS "${OpenMP_CXX_FLAGS}")
endif()

configure_file(cmake/torvel.pc.in ${CMAKE_CURRENT_BINARY_DIR}/torvel.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/torvel.pc DESTINATION ${_pc_dir} COMPONENT dev)
