# Manual pages made from a program's own usage text.
#
# Included by a project, this file defines torvel_man_page(name target [DOC doc]):
# the page man/<name>.1.in is filled at build time into <build>/man/<name>.1,
# installed gzipped to share/man/man1 and checked by `man --warnings` as a
# test, which also finds on the page every option of the "## Options" table of
# the program's documentation page DOC (docs/<doc>.md), when one is named.
# In the template, @SYNOPSIS@, @DESCRIPTION@ and @OPTIONS@ become the parts of
# the usage text of `target -h` (see usage_to_roff below) and @SEE_ALSO@ the
# list of the project's other manual pages; the page's own text (NAME,
# DESCRIPTION, EXIT STATUS, EXAMPLES, ...) is plain roff, where @VERSION@ and
# @DOCDIR@ (the installed documentation folder) are filled.
#
# Run as a script it does one of the two jobs:
#   cmake -DPROGRAM=exe -DTEMPLATE=in -DOUTPUT=page -DVERSION=v -DDOCDIR=d
#         -DPAGES=list_file -P man_page.cmake
#   cmake -DCHECK=page [-DDOC=doc.md] -P man_page.cmake

if(NOT CMAKE_SCRIPT_MODE_FILE)
  include_guard(GLOBAL)
  set(_torvel_man_script ${CMAKE_CURRENT_LIST_FILE})
  # Every page's name, one a line, written once the whole project is
  # configured (and rewritten only when it changes): each page's SEE ALSO
  # names the others, so a new program's page appears in all of them.
  function(_torvel_write_man_list)
    get_property(pages GLOBAL PROPERTY TORVEL_MAN_PAGES)
    list(JOIN pages "\n" pages)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/man-pages.txt CONTENT "${pages}\n")
  endfunction()

  function(torvel_man_page name target)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "DOC" "")
    get_property(pages GLOBAL PROPERTY TORVEL_MAN_PAGES)
    if(NOT pages)
      cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL _torvel_write_man_list)
    endif()
    set_property(GLOBAL APPEND PROPERTY TORVEL_MAN_PAGES ${name})
    set(template ${CMAKE_CURRENT_SOURCE_DIR}/${name}.1.in)
    set(page ${CMAKE_CURRENT_BINARY_DIR}/${name}.1)
    set(list ${PROJECT_BINARY_DIR}/man-pages.txt)
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -DPROGRAM=$<TARGET_FILE:${target}> -DTEMPLATE=${template}
              -DOUTPUT=${page} -DVERSION=${PROJECT_VERSION}
              -DDOCDIR=${CMAKE_INSTALL_FULL_DOCDIR} -DPAGES=${list}
              -P ${_torvel_man_script}
      DEPENDS ${target} ${template} ${_torvel_man_script} ${list}
      COMMENT "Manual page ${name}(1) from ${name} -h")
    # Installed compressed, as Debian keeps its manual pages.
    add_custom_command(OUTPUT ${page}.gz
      COMMAND gzip -9nc ${page} > ${page}.gz
      DEPENDS ${page})
    add_custom_target(man_${name} ALL DEPENDS ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    if(BUILD_TESTING AND TORVEL_PRODUCT_TESTS)
      set(doc "")
      if(arg_DOC)
        set(doc -DDOC=${PROJECT_SOURCE_DIR}/docs/${arg_DOC})
      endif()
      add_test(NAME man_page_${name}
               COMMAND ${CMAKE_COMMAND} -DCHECK=${page} ${doc} -P ${_torvel_man_script})
    endif()
  endfunction()
  return()
endif()

# Text as roff: no line may start a request, a backslash is printed as one,
# and a dash that starts an option is a minus sign, not a hyphen.
function(roff_text out text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|[ (\\[,|])-" "\\1\\\\-" text "${text}")
  string(REGEX REPLACE "^([.'])" "\\\\&\\1" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# An option's tag in bold, the value after '=' in italics: -w=w1[:w2...].
function(roff_option_tag out tag)
  if(tag MATCHES "^([^=]*=)(.+)$")
    roff_text(name "${CMAKE_MATCH_1}")
    roff_text(value "${CMAKE_MATCH_2}")
    set(${out} "\\fB${name}\\fI${value}\\fR" PARENT_SCOPE)
  else()
    roff_text(name "${tag}")
    set(${out} "\\fB${name}\\fR" PARENT_SCOPE)
  endif()
endfunction()

function(indent_of out line)
  string(REGEX REPLACE "^ +" "" rest "${line}")
  string(LENGTH "${line}" whole)
  string(LENGTH "${rest}" after)
  math(EXPR n "${whole} - ${after}")
  set(${out} ${n} PARENT_SCOPE)
endfunction()

# One synopsis line: the program in bold, its arguments as written.
function(synopsis_line out program arguments)
  roff_text(program "${program}")
  roff_text(arguments "${arguments}")
  set(${out} ".B ${program}\n${arguments}" PARENT_SCOPE)
endfunction()

# Splits a usage text into three roff parts:
# - SYNOPSIS: the "usage: program arguments" line (which may follow the
#   program's "name: " prefix) and any lines right after it that start with
#   the program's name;
# - DESCRIPTION: the text after those and before the first option;
# - OPTIONS: the rest. A line starting with '-' opens an option (its text may
#   follow on the same line after two blanks), more deeply indented lines
#   describe it. Other lines make paragraphs; a line ending in ':' ("Options:")
#   stands alone, and before the first option belongs to OPTIONS.
function(usage_to_roff usage synopsis_out description_out options_out)
  # Lines as a list: the characters CMake lists give a meaning stand in
  # for themselves until each line is taken out.
  string(REPLACE ";" "<semicolon>" usage "${usage}")
  string(REPLACE "[" "<open>" usage "${usage}")
  string(REPLACE "]" "<close>" usage "${usage}")
  string(REGEX REPLACE "\n$" "" usage "${usage}")
  string(REPLACE "\n" ";" lines "${usage}")
  set(synopsis "")
  set(description "")
  set(options "")
  set(option_indent -1)
  set(paragraph "")  # the part whose open paragraph the next text line continues
  foreach(line IN LISTS lines)
    string(REPLACE "<semicolon>" ";" line "${line}")
    string(REPLACE "<open>" "[" line "${line}")
    string(REPLACE "<close>" "]" line "${line}")
    indent_of(indent "${line}")
    string(STRIP "${line}" text)
    string(REGEX REPLACE "  +" " " text "${text}")
    if(text STREQUAL "")
      set(paragraph "")
    elseif(options STREQUAL "" AND text MATCHES "^[Oo]ptions:$")
      # The section's own heading says it already.
    elseif(synopsis STREQUAL "" AND text MATCHES "^([^ ]+: +)?[Uu]sage: *([^ ]+) *(.*)$")
      set(program "${CMAKE_MATCH_2}")
      synopsis_line(synopsis "${program}" "${CMAKE_MATCH_3}")
    elseif(description STREQUAL "" AND options STREQUAL "" AND NOT synopsis STREQUAL ""
           AND text MATCHES "^([^ ]+) +(.*)$" AND CMAKE_MATCH_1 STREQUAL program)
      synopsis_line(line "${program}" "${CMAKE_MATCH_2}")
      string(APPEND synopsis "\n.br\n${line}")
    elseif(text MATCHES "^-")
      string(STRIP "${line}" tag)
      set(tag_text "")
      string(FIND "${tag}" "  " gap)
      if(gap GREATER 0)
        string(SUBSTRING "${tag}" ${gap} -1 tag_text)
        string(SUBSTRING "${tag}" 0 ${gap} tag)
        string(STRIP "${tag_text}" tag_text)
        string(REGEX REPLACE "  +" " " tag_text "${tag_text}")
        roff_text(tag_text "${tag_text}")
        set(tag_text "\n${tag_text}")
      endif()
      roff_option_tag(tag "${tag}")
      string(APPEND options ".TP\n${tag}${tag_text}\n")
      set(option_indent ${indent})
      set(paragraph "")
    elseif(option_indent GREATER_EQUAL 0 AND indent GREATER option_indent)
      roff_text(text "${text}")
      string(APPEND options "${text}\n")
    else()
      set(option_indent -1)
      set(part options)
      if(options STREQUAL "" AND NOT text MATCHES ":$")
        set(part description)
      endif()
      roff_text(roff "${text}")
      if(NOT paragraph STREQUAL part)
        string(APPEND ${part} ".PP\n")
      endif()
      string(APPEND ${part} "${roff}\n")
      set(paragraph ${part})
      if(text MATCHES ":$")
        set(paragraph "")
      endif()
    endif()
  endforeach()
  if(synopsis STREQUAL "")
    message(FATAL_ERROR "${PROGRAM} -h: no line begins with \"usage:\"")
  endif()
  foreach(part synopsis description options)
    string(REGEX REPLACE "\n$" "" ${part} "${${part}}")
  endforeach()
  set(${synopsis_out} "${synopsis}" PARENT_SCOPE)
  set(${description_out} "${description}" PARENT_SCOPE)
  set(${options_out} "${options}" PARENT_SCOPE)
endfunction()

# The SEE ALSO list: every page of the list file but this one.
function(see_also out pages_file self)
  file(STRINGS ${pages_file} pages)
  list(REMOVE_ITEM pages ${self})
  set(refs "")
  foreach(page IN LISTS pages)
    roff_text(page "${page}")
    list(APPEND refs ".BR ${page} (1)")
  endforeach()
  list(JOIN refs ",\n" refs)
  set(${out} "${refs}" PARENT_SCOPE)
endfunction()

# The options of a documentation page: the first cell of each row of its
# "## Options" table, every `-name` or `-name=` in it.
function(documented_options out doc)
  file(STRINGS ${doc} lines)
  set(options "")
  set(inside OFF)
  foreach(line IN LISTS lines)
    if(line MATCHES "^## ")
      set(inside OFF)
      if(line MATCHES "^## Options")
        set(inside ON)
      endif()
    elseif(inside AND line MATCHES "^\\| *(`-[^|]*)\\|")
      string(REGEX MATCHALL "`-+[A-Za-z_]+=?" names "${CMAKE_MATCH_1}")
      string(REPLACE "`" "" names "${names}")
      list(APPEND options ${names})
    endif()
  endforeach()
  if(NOT options)
    message(FATAL_ERROR "${doc}: no \"## Options\" table")
  endif()
  set(${out} "${options}" PARENT_SCOPE)
endfunction()

if(DEFINED CHECK)
  # The page must format without a single groff or man warning.
  execute_process(COMMAND ${CMAKE_COMMAND} -E env MANPAGER=cat MANWIDTH=80
                          man --warnings -E UTF-8 -l ${CHECK}
                  RESULT_VARIABLE status OUTPUT_VARIABLE shown ERROR_VARIABLE warnings)
  if(NOT status EQUAL 0 OR NOT warnings STREQUAL "" OR NOT shown MATCHES "OPTIONS")
    message(FATAL_ERROR "man --warnings -l ${CHECK} (status ${status}):\n${warnings}")
  endif()
  if(DEFINED DOC)
    # Every documented option is on the page; lines too wide to break leave
    # each option whole.
    execute_process(COMMAND ${CMAKE_COMMAND} -E env MANPAGER=cat MANWIDTH=1000
                            man -E ascii -l ${CHECK} OUTPUT_VARIABLE shown)
    documented_options(options ${DOC})
    set(missing "")
    foreach(option IN LISTS options)
      # The names hold letters, '_', '-' and '=' only: no regular expression
      # character. A name without '=' must end there (-h is not -help).
      set(end "")
      if(NOT option MATCHES "=$")
        set(end "([ ,=\n]|$)")
      endif()
      if(NOT shown MATCHES "(^|[ ,\n])${option}${end}")
        list(APPEND missing ${option})
      endif()
    endforeach()
    if(missing)
      message(FATAL_ERROR "${CHECK} lacks options that ${DOC} lists: ${missing}")
    endif()
  endif()
  return()
endif()

execute_process(COMMAND ${PROGRAM} -h RESULT_VARIABLE status OUTPUT_VARIABLE usage)
if(NOT status EQUAL 0 OR usage STREQUAL "")
  message(FATAL_ERROR "${PROGRAM} -h failed (status ${status})")
endif()
usage_to_roff("${usage}" SYNOPSIS DESCRIPTION OPTIONS)
get_filename_component(self ${OUTPUT} NAME_WE)
see_also(SEE_ALSO ${PAGES} ${self})
configure_file(${TEMPLATE} ${OUTPUT} @ONLY)
