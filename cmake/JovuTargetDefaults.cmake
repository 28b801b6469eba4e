# SPDX-License-Identifier: Apache-2.0
include(JovuHardening)

# jovu_target_defaults(TARGET): what every target of this project is compiled with. Private to the
# target, so a project that embeds this one keeps its own flags.
function(jovu_target_defaults target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${JOVU_WERROR}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    # In a unity build the sources look like headers, in which types of a file's own are a mistake.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-subobject-linkage>)
  jovu_harden(${target})
  if(JOVU_SANITIZE)
    target_compile_options(${target} PRIVATE
      -fsanitize=${JOVU_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${JOVU_SANITIZE})
    # A preloaded library (the simulated bus needs one) may not come before the sanitizer's
    # run-time, unless that is part of the program itself.
    if(JOVU_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_link_options(${target} PRIVATE -static-libasan)
    endif()
  endif()
endfunction()
