# SPDX-License-Identifier: Apache-2.0
#
# Most of the time that a build takes goes into reading a few large headers of other projects, over and
# over. With JOVU_PRECOMPILE they are read once for all targets with the same flags. Whether each file
# includes what it uses then shows in builds without it only; the preset "fuzz" is one, and the library
# never has any.

# jovu_share_headers(NAME HEADERS... OF LIBRARIES... FOR TARGETS...): compiles headers of the libraries
# once, in a target of that name, for those of the targets that exist.
function(jovu_share_headers name)
  cmake_parse_arguments(PARSE_ARGV 1 shared "" "" "HEADERS;OF;FOR")
  if(NOT JOVU_PRECOMPILE)
    return()
  endif()
  set(empty "${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp")
  file(CONFIGURE OUTPUT "${empty}" CONTENT "")
  add_library(${name} OBJECT "${empty}")
  target_link_libraries(${name} PRIVATE ${shared_OF})
  jovu_target_defaults(${name})
  target_precompile_headers(${name} PRIVATE ${shared_HEADERS})
  foreach(target ${shared_FOR})
    if(TARGET ${target})
      target_precompile_headers(${target} REUSE_FROM ${name})
    endif()
  endforeach()
endfunction()

# jovu_precompile(TARGET HEADERS...): for one target.
function(jovu_precompile target)
  if(JOVU_PRECOMPILE AND TARGET ${target})
    target_precompile_headers(${target} PRIVATE ${ARGN})
  endif()
endfunction()
