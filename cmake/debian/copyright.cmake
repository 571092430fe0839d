# torvel_deb_copyright(output links contains): writes a package's copyright
# file in Debian's machine-readable format 1.0. torvel's own files are under
# the licence of LICENSE (BSD-3-Clause, The torvel developers); "links" is the
# list of libraries the package's programs link, "library (Debian package):
# licence" each, listed in the header's comment; "contains" names code of
# other projects compiled into an installed file, as
# "file|copyright holders|licence|what it is" entries, each a Files paragraph
# whose licence text is read from cmake/debian/LICENCE.txt.

# Writes text to a file, unless the file holds it already (so that what
# depends on the file is not made again).
function(torvel_write_if_changed file text)
  if(EXISTS ${file})
    file(READ ${file} old)
    if(old STREQUAL text)
      return()
    endif()
  endif()
  file(WRITE ${file} "${text}")
endfunction()

# A licence text as a DEP-5 paragraph body: each line indented by one
# blank, an empty line as " .".
function(_torvel_deb_indent out text)
  string(REGEX REPLACE "\n+$" "" text "${text}")
  string(REGEX REPLACE "\n\n" "\n.\n" text "${text}")
  string(REPLACE "\n" "\n " text "${text}")
  set(${out} " ${text}" PARENT_SCOPE)
endfunction()

# Text broken into lines of at most 76 characters, each started by the
# indent.
function(_torvel_deb_wrap out indent text)
  string(REGEX MATCHALL "[^ ]+" words "${text}")
  set(result "")
  set(line "")
  foreach(word IN LISTS words)
    string(LENGTH "${indent}${line} ${word}" length)
    if(NOT line STREQUAL "" AND length GREATER 76)
      string(APPEND result "\n${indent}${line}")
      set(line "${word}")
    elseif(line STREQUAL "")
      set(line "${word}")
    else()
      string(APPEND line " ${word}")
    endif()
  endforeach()
  string(APPEND result "\n${indent}${line}")
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

function(torvel_deb_copyright output links contains)
  file(READ ${PROJECT_SOURCE_DIR}/LICENSE licence)
  string(FIND "${licence}" "Redistribution" start)
  string(SUBSTRING "${licence}" ${start} -1 licence)
  _torvel_deb_indent(bsd "${licence}")

  set(linked "")
  foreach(line IN LISTS links)
    _torvel_deb_wrap(line "   " "${line}")
    string(REGEX REPLACE "^\n   " "\n  " line "${line}")
    string(APPEND linked "${line}")
  endforeach()
  # Where Debian keeps the texts of the licences named.
  set(texts "")
  foreach(name GPL-2 GPL-3 LGPL-2.1 MPL-1.1)
    if(links MATCHES "(^|[^A-Za-z])${name}([^.0-9]|$)")
      list(APPEND texts /usr/share/common-licenses/${name})
    endif()
  endforeach()
  list(JOIN texts ", " texts)
  _torvel_deb_wrap(texts " " "The licences' texts: ${texts}.")
  set(text "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: torvel
Upstream-Contact: ${TORVEL_DEB_MAINTAINER}
Comment: The programs of this package, or those that link its library, are
 linked with these libraries, each under its own licence, whose terms are in
 the copyright file of the Debian package named
 (/usr/share/doc/PACKAGE/copyright):
 .${linked}
 .${texts}

Files: *
Copyright: 2026 The torvel developers
License: BSD-3-Clause
")
  set(licences "")
  foreach(entry IN LISTS contains)
    string(REPLACE "|" ";" fields "${entry}")
    list(GET fields 0 file)
    list(GET fields 1 holders)
    list(GET fields 2 name)
    list(GET fields 3 what)
    _torvel_deb_wrap(what " " "${file} also holds the code of ${what}.")
    string(APPEND text "
Files: ${file}
Copyright: 2026 The torvel developers
 ${holders}
License: BSD-3-Clause and ${name}
Comment:${what}
")
    list(APPEND licences ${name})
  endforeach()
  string(APPEND text "\nLicense: BSD-3-Clause\n${bsd}\n")
  list(REMOVE_DUPLICATES licences)
  foreach(name IN LISTS licences)
    file(READ ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/${name}.txt other)
    _torvel_deb_indent(other "${other}")
    string(APPEND text "\nLicense: ${name}\n${other}\n")
  endforeach()
  torvel_write_if_changed(${output} "${text}")
endfunction()
