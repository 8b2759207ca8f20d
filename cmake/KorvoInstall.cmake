# What `cmake --install` puts in place: libraries, headers and the package files that find_package reads.

include(CMakePackageConfigHelpers)

get_property(korvo_libraries GLOBAL PROPERTY KORVO_LIBRARIES)
get_property(korvo_include_dirs GLOBAL PROPERTY KORVO_INCLUDE_DIRS)
set(korvo_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/korvo_variant_utils)

install(TARGETS ${korvo_libraries} EXPORT korvo_variant_utils_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY ${korvo_include_dirs} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

install(EXPORT korvo_variant_utils_targets
  NAMESPACE korvo::
  DESTINATION ${korvo_package_dir}
  COMPONENT development)
configure_package_config_file(cmake/korvo_variant_utils-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/korvo_variant_utils-config.cmake
  INSTALL_DESTINATION ${korvo_package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/korvo_variant_utils-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/korvo_variant_utils-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/korvo_variant_utils-config-version.cmake
  DESTINATION ${korvo_package_dir}
  COMPONENT development)
