# SPDX-License-Identifier: Apache-2.0
#
# What "cmake --install" lays down beside the library, the headers and the program: the CMake package
# (find_package(jovu) gives jovu::jovu), the pkg-config file and the udev rule.
include(CMakePackageConfigHelpers)

set(jovu_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/jovu")
install(EXPORT jovu-targets NAMESPACE jovu:: DESTINATION "${jovu_cmake_dir}")
if(TARGET jovu_static)
  install(EXPORT jovu-static-targets NAMESPACE jovu:: DESTINATION "${jovu_cmake_dir}")
endif()
configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/jovu-config.cmake.in" "${PROJECT_BINARY_DIR}/jovu-config.cmake"
  INSTALL_DESTINATION "${jovu_cmake_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/jovu-config-version.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/jovu-config.cmake" "${PROJECT_BINARY_DIR}/jovu-config-version.cmake"
  DESTINATION "${jovu_cmake_dir}")

# Only users of the static library need the libraries under it, and their development packages.
set(jovu_pc_requires "")
set(jovu_pc_requires_private "")
set(jovu_pc_cflags "")
if(JOVU_STATIC)
  set(jovu_pc_requires "libusb-1.0 yajl zlib")
  set(jovu_pc_cflags " -DJOVU_STATIC")
elseif(JOVU_WITH_STATIC)
  set(jovu_pc_requires_private "libusb-1.0 yajl zlib")
endif()
# Relative to the file's own place, so that the installed tree may be moved. The folders may have been
# given as absolute paths.
file(RELATIVE_PATH jovu_pc_to_prefix
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
file(RELATIVE_PATH jovu_pc_libdir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH jovu_pc_includedir "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/jovu.pc.in" "${PROJECT_BINARY_DIR}/jovu.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/jovu.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# udev reads lib/udev/rules.d of /usr and of /usr/local.
install(FILES "${PROJECT_SOURCE_DIR}/packaging/70-jovu.rules" DESTINATION lib/udev/rules.d)
