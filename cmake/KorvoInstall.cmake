# What `cmake --install` installs: libraries, headers and what find_package and pkg-config read. Without KORVO_INSTALL that is
# nothing, and the parent project chooses the directories of an installation.

if(KORVO_INSTALL)
  include(GNUInstallDirs)
  include(CMakePackageConfigHelpers)
endif()

# The targets package and package_source archive what is installed, and the sources without builds and history.
if(KORVO_TOP_LEVEL)
  set(CPACK_GENERATOR TGZ)
  set(CPACK_SYSTEM_NAME ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
  set(CPACK_SOURCE_GENERATOR TGZ)
  set(CPACK_SOURCE_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION})
  # Regular expressions; the name of the directory may contain any character.
  string(REGEX REPLACE "([][+.*()^$?|\\])" "\\\\\\1" directory "${PROJECT_SOURCE_DIR}")
  set(CPACK_SOURCE_IGNORE_FILES "^${directory}/build(/|$)" "^${directory}/\\.git(/|$)")
  set(CPACK_VERBATIM_VARIABLES ON)
  include(CPack)
endif()

# korvo_install_package(PACKAGE LIBRARIES ...)
# Makes the libraries the CMake package PACKAGE, whose find_package reads cmake/PACKAGE-config.cmake.in, and gives each
# its pkg-config file.
function(korvo_install_package package)
  if(NOT KORVO_INSTALL)
    return()
  endif()
  cmake_parse_arguments(arg "" "" "LIBRARIES" ${ARGN})
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/${package})

  install(TARGETS ${arg_LIBRARIES} EXPORT ${package}_targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  foreach(library ${arg_LIBRARIES})
    get_target_property(source_dir ${library} SOURCE_DIR)
    get_target_property(binary_dir ${library} BINARY_DIR)
    # The headers, and the one that configure_file() makes.
    install(DIRECTORY ${source_dir}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
      COMPONENT development FILES_MATCHING PATTERN "*.h")
    if(EXISTS ${binary_dir}/include)
      install(DIRECTORY ${binary_dir}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
    endif()
    korvo_install_pkgconfig(${library})
  endforeach()

  install(EXPORT ${package}_targets NAMESPACE korvo:: DESTINATION ${package_dir} COMPONENT development)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/${package}-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${package}-config.cmake
    INSTALL_DESTINATION ${package_dir})
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${package}-config-version.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/${package}-config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/${package}-config-version.cmake
    DESTINATION ${package_dir}
    COMPONENT development)
endfunction()

# korvo_install_pkgconfig(LIBRARY): LIBRARY.pc, which requires what the library links. It derives the prefix from its own
# place, so that it is right in a staging directory and in a device's root file system.
function(korvo_install_pkgconfig library)
  get_target_property(description ${library} KORVO_DESCRIPTION)
  get_target_property(links ${library} LINK_LIBRARIES)
  get_target_property(public_links ${library} INTERFACE_LINK_LIBRARIES)
  set(requires)
  set(requires_private)
  set(libs_private)
  foreach(link ${links})
    string(REPLACE "korvo::" "korvo_" name ${link})
    if(link STREQUAL "Threads::Threads")
      list(APPEND libs_private -pthread)
    elseif(link IN_LIST public_links)
      list(APPEND requires ${name})
    elseif(link)
      list(APPEND requires_private ${name})
    endif()
  endforeach()
  list(JOIN requires " " requires)
  list(JOIN requires_private " " requires_private)
  # The linker must find the shared libraries that a shared library needs, though the host does not name them.
  set(libs_more)
  if(BUILD_SHARED_LIBS)
    set(libs_more " -Wl,-rpath-link,\${libdir}")
  endif()
  set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  file(RELATIVE_PATH libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
  file(RELATIVE_PATH includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc DESTINATION ${pkgconfig_dir} COMPONENT development)
endfunction()
