# SPDX-License-Identifier: Apache-2.0
#
# jovu_harden(TARGET): the protections of compiler and linker against what a hostile device, or another
# user of the machine, could make of a mistake in the code. With JOVU_HARDENING, in optimised builds
# without sanitizers; scripts/check-hardening.sh looks for them in what is installed.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

# The flags that this compiler knows, of those that are asked for.
function(jovu_known_flags result)
  set(known "")
  foreach(flag ${ARGN})
    string(MAKE_C_IDENTIFIER "JOVU_HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
      list(APPEND known ${flag})
    endif()
  endforeach()
  set(${result} ${known} PARENT_SCOPE)
endfunction()

set(jovu_optimised_builds Release RelWithDebInfo MinSizeRel)
get_property(jovu_many_builds GLOBAL PROPERTY GENERATOR_IS_MULTI_CONFIG)
set(JOVU_HARDENS OFF)
if(JOVU_HARDENING AND NOT JOVU_SANITIZE AND
    (jovu_many_builds OR CMAKE_BUILD_TYPE IN_LIST jovu_optimised_builds))
  set(JOVU_HARDENS ON)
  check_pie_supported()
  set(jovu_protections -fstack-protector-strong -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
    list(APPEND jovu_protections -fcf-protection)
  endif()
  jovu_known_flags(jovu_protection_flags ${jovu_protections})
  # Level 3 follows sizes that are known at run time; older C libraries warn that they do not.
  set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <cstring>\nint main() { return 0; }" JOVU_HAS_FORTIFY_3)
  unset(CMAKE_REQUIRED_FLAGS)
  list(APPEND jovu_protection_flags
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${JOVU_HAS_FORTIFY_3}>,3,2>)
endif()

function(jovu_harden target)
  if(NOT JOVU_HARDENS OR NOT JOVU_HARDENING)
    return()
  endif()
  set(optimised "$<IN_LIST:$<CONFIG>,${jovu_optimised_builds}>")
  target_compile_options(${target} PRIVATE "$<${optimised}:${jovu_protection_flags}>")
  target_link_options(${target} PRIVATE
    "$<${optimised}:LINKER:-z,relro;LINKER:-z,now;LINKER:-z,noexecstack>")
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()
