# The shared library exports the calls declared in include/fsusdk.h and nothing else. The
# linker's version script is made from the header at build time, so a call added to the header
# is exported without further steps.
#
# Included from CMakeLists.txt it defines fsu_export_header_calls(<target> <header>); run as a
# script (cmake -DHEADER=... -DOUT=... -P FsuExports.cmake) it writes the version script.

if(CMAKE_SCRIPT_MODE_FILE)
  cmake_minimum_required(VERSION 3.25)
  file(READ ${HEADER} text)
  # Comments out: block comments (found pairwise, CMake's regex has no lazy match), then line ones.
  set(code "")
  while(TRUE)
    string(FIND "${text}" "/*" open)
    if(open EQUAL -1)
      string(APPEND code "${text}")
      break()
    endif()
    string(SUBSTRING "${text}" 0 ${open} before)
    string(APPEND code "${before} ")
    string(SUBSTRING "${text}" ${open} -1 text)
    string(FIND "${text}" "*/" close)
    if(close EQUAL -1)
      message(FATAL_ERROR "${HEADER}: a comment is not closed")
    endif()
    math(EXPR close "${close} + 2")
    string(SUBSTRING "${text}" ${close} -1 text)
  endwhile()
  string(REGEX REPLACE "//[^\n]*" "" code "${code}")
  # Preprocessor lines out, and the C++ linkage braces.
  string(REGEX REPLACE "(^|\n)[ \t]*#[^\n]*" "\n" code "${code}")
  string(REPLACE "extern \"C\" {" "" code "${code}")
  string(REGEX REPLACE "[\n\t ]+" " " code "${code}")
  # One declaration per ';': the first name followed by '(' is the function's, unless the
  # declaration is a typedef (a function pointer type).
  string(REPLACE ";" "\n" code "${code}")
  string(REGEX MATCHALL "[^\n]+" declarations "${code}")
  set(names "")
  foreach(declaration IN LISTS declarations)
    string(STRIP "${declaration}" declaration)
    string(REGEX REPLACE "^}+ *" "" declaration "${declaration}")
    if(declaration MATCHES "^typedef " OR NOT declaration MATCHES "([A-Za-z_][A-Za-z0-9_]*) *\\(")
      continue()
    endif()
    list(APPEND names ${CMAKE_MATCH_1})
  endforeach()
  if(NOT names)
    message(FATAL_ERROR "${HEADER}: no call declared")
  endif()
  list(REMOVE_DUPLICATES names)
  list(SORT names)
  set(map "/* Made from fsusdk.h by cmake/FsuExports.cmake: the header's calls, nothing else. */\n")
  string(APPEND map "{\n  global:\n")
  foreach(name IN LISTS names)
    string(APPEND map "    ${name};\n")
  endforeach()
  string(APPEND map "  local:\n    *;\n};\n")
  file(WRITE ${OUT}.new "${map}")
  file(COPY_FILE ${OUT}.new ${OUT} ONLY_IF_DIFFERENT)
  file(REMOVE ${OUT}.new)
  return()
endif()

function(fsu_export_header_calls target header)
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  add_custom_command(OUTPUT ${map}
    COMMAND ${CMAKE_COMMAND} -DHEADER=${header} -DOUT=${map} -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    DEPENDS ${header} ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    COMMENT "Exports of ${target} from ${header}")
  add_custom_target(${target}_exports DEPENDS ${map})
  add_dependencies(${target} ${target}_exports)
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
  # Every symbol resolved at link time; sanitizer runtimes are linked into programs only.
  if(FSU_SANITIZE STREQUAL "" AND NOT FSU_BUILD_FUZZ)
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()
