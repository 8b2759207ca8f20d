# `cpack -G DEB` makes three Debian packages: the shared libraries, what building against them needs, and the tool.
# Their dependencies are computed: those on the system by dpkg-shlibdeps, those on one another from the components.

set(CPACK_PACKAGE_VENDOR "korvo_variant_utils maintainers")
set(CPACK_PACKAGE_CONTACT "korvo_variant_utils maintainers <maintainers@korvo.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# Where dpkg-shlibdeps finds the libraries of this build, which no installed package has.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(NOT KORVO_PLATFORM_PACKAGE)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/platform/logger ${PROJECT_BINARY_DIR}/platform/utils ${PROJECT_BINARY_DIR}/platform/variant)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkorvo-variant-utils${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared libraries.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkorvo-variant-utils-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, and files for CMake and pkg-config.")
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME korvoctl)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION "korvoctl, which uses the library from the shell.")

set(CPACK_COMPONENTS_ALL development)
if(BUILD_SHARED_LIBS)
  list(APPEND CPACK_COMPONENTS_ALL runtime)
  set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
  set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
endif()
if(KORVO_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tool)
endif()

include(CPack)
