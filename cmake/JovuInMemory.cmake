# SPDX-License-Identifier: Apache-2.0
#
# jovu_in_memory: the library with a USB backend made of memory, for programs that measure or fuzz
# what stands above the backend.
pkg_check_modules(YAJL REQUIRED IMPORTED_TARGET yajl)
pkg_check_modules(ZLIB REQUIRED IMPORTED_TARGET zlib)

add_library(jovu_in_memory STATIC EXCLUDE_FROM_ALL
  "${PROJECT_SOURCE_DIR}/tests/support/memory_backend.cpp" $<TARGET_OBJECTS:jovu_objects>)
target_compile_definitions(jovu_in_memory PUBLIC JOVU_STATIC)
target_include_directories(jovu_in_memory PUBLIC
  "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/tests")
target_link_libraries(jovu_in_memory PUBLIC PkgConfig::YAJL PkgConfig::ZLIB Threads::Threads)
jovu_target_defaults(jovu_in_memory)
