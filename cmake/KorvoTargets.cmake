# How every library and program of this project is built.

include(CheckCXXSourceCompiles)
include(CheckPIESupported)

# Without this check CMake compiles programs as position-independent, but does not link them so. It applies to the whole
# build, so a parent project decides for itself.
if(KORVO_TOP_LEVEL)
  check_pie_supported(LANGUAGES CXX)
endif()

# korvo_check_links(VARIABLE PROGRAM [FLAG]): whether the toolchain links the program, and accepts the flag without a warning.
# Its name and version would not do: it may accept a flag but lack the function that the flag calls.
function(korvo_check_links variable program)
  set(CMAKE_CXX_STANDARD 17)
  set(CMAKE_REQUIRED_FLAGS ${ARGN})
  set(warning)
  if(ARGN)
    set(warning FAIL_REGEX "warning:[^\n]*${ARGN}")
  endif()
  check_cxx_source_compiles("${program}" ${variable} ${warning})
endfunction()

# The flags that the user, the toolchain or a parent project has set.
set(said ${CMAKE_CXX_COMPILER_ARG1})
foreach(property COMPILE_OPTIONS COMPILE_DEFINITIONS LINK_OPTIONS)
  get_directory_property(value ${property})
  list(APPEND said ${value})
endforeach()
foreach(flags CXX_FLAGS EXE_LINKER_FLAGS SHARED_LINKER_FLAGS)
  list(APPEND said ${CMAKE_${flags}})
  foreach(config ${CMAKE_BUILD_TYPE} ${CMAKE_CONFIGURATION_TYPES})
    string(TOUPPER ${config} config)
    list(APPEND said ${CMAKE_${flags}_${config}})
  endforeach()
endforeach()

# korvo_harden(LIST SUBJECT FLAG...): adds the flags to the list, unless one of those already set matches SUBJECT, a regular
# expression.
macro(korvo_harden list subject)
  if(KORVO_HARDENING AND NOT said MATCHES "${subject}")
    list(APPEND ${list} ${ARGN})
  endif()
endmacro()

# Fortification needs an optimised build, and sanitizers bring their own checks.
set(KORVO_HARDENING_FLAGS)
korvo_harden(KORVO_HARDENING_FLAGS "_FORTIFY_SOURCE|-fsanitize"
  $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
set(KORVO_HARDENING_LINK_FLAGS)
korvo_harden(KORVO_HARDENING_LINK_FLAGS "relro" -Wl,-z,relro)
korvo_harden(KORVO_HARDENING_LINK_FLAGS "-z[, ;](now|lazy)" -Wl,-z,now)
korvo_harden(KORVO_HARDENING_LINK_FLAGS "execstack" -Wl,-z,noexecstack)

# For 32-bit ARM, GCC's -fstack-clash-protection only touches the end of every frame. No frame here reaches a page, so
# none can step over the guard page: the flag would protect nothing, at 3,685 bytes.
set(KORVO_FRAME_FLAGS)
korvo_harden(KORVO_FRAME_FLAGS "-fsanitize" -Wframe-larger-than=4095)
set(flags -fstack-protector-strong -fstack-clash-protection -fcf-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  list(REMOVE_ITEM flags -fstack-clash-protection)
endif()
# The toolchain may lack these. The program contains what each flag protects.
foreach(flag ${flags})
  string(MAKE_C_IDENTIFIER "KORVO_HAS${flag}" has)
  korvo_check_links(${has} "
    #include <cstdio>
    int main(int count, char** arguments) {
      char text[20000];
      return std::snprintf(text, sizeof text, \"%s\", arguments[count - 1]);
    }" ${flag})
  if(${has})
    string(REGEX REPLACE "^-f|-strong$" "" subject ${flag})
    korvo_harden(KORVO_HARDENING_FLAGS ${subject} ${flag})
  endif()
endforeach()

korvo_check_links(KORVO_HAS_FLOATING_POINT_CHARCONV "
  #include <charconv>
  int main(int, char** arguments) {
    double number = 0.0;
    std::from_chars(arguments[0], arguments[0] + 1, number);
    return std::to_chars(arguments[0], arguments[0] + 1, number).ptr == nullptr;
  }")
if(NOT KORVO_HAS_FLOATING_POINT_CHARCONV)
  message(FATAL_ERROR "The standard library lacks std::from_chars and std::to_chars of double. GCC has them since GCC 11; with a "
    "C library without locale objects, such as most builds of uClibc, since GCC 12.")
endif()

# korvo_build_settings(TARGET): language level, warnings, hardening and 64-bit file offsets of one target.
function(korvo_build_settings target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  # The feature is for those who link the target. The standard puts a flag on every command line, which tools that read the
  # compilation database need; a later standard that the user sets stays.
  if(NOT CMAKE_CXX_STANDARD)
    set_property(TARGET ${target} PROPERTY CXX_STANDARD 17)
  endif()
  # An absolute path would give the same sources another build identifier in every directory. A toolchain whose loader does
  # not know $ORIGIN sets CMAKE_BUILD_RPATH_USE_ORIGIN to OFF.
  if(NOT DEFINED CMAKE_BUILD_RPATH_USE_ORIGIN)
    set_property(TARGET ${target} PROPERTY BUILD_RPATH_USE_ORIGIN ON)
  endif()
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  # 64-bit time_t needs 64-bit file offsets. A C library without that choice ignores both.
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Wshadow ${KORVO_HARDENING_FLAGS})
  if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
  target_link_options(${target} PRIVATE ${KORVO_HARDENING_LINK_FLAGS} -Wl,--as-needed)
endfunction()

# korvo_add_library(NAME DESCRIPTION ... SOURCES ... [PUBLIC_LINK ...] [PRIVATE_LINK ...])
# The library libkorvo_NAME with the target korvo::NAME; its public headers are in include/ of its directory.
function(korvo_add_library name)
  cmake_parse_arguments(arg "" "DESCRIPTION" "SOURCES;PUBLIC_LINK;PRIVATE_LINK" ${ARGN})
  set(target korvo_${name})
  add_library(${target} ${arg_SOURCES})
  add_library(korvo::${name} ALIAS ${target})
  korvo_build_settings(${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name}
    KORVO_DESCRIPTION "${arg_DESCRIPTION}"
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>)
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC_LINK} PRIVATE ${arg_PRIVATE_LINK})
  # Instances of standard templates are visible whatever the visibility preset.
  set(exports ${PROJECT_SOURCE_DIR}/cmake/exports.map)
  target_link_options(${target} PRIVATE -Wl,--version-script=${exports})
  set_property(TARGET ${target} PROPERTY LINK_DEPENDS ${exports})
  # Smaller code: the linker drops what nothing calls, even from a host that links statically with --gc-sections, and a
  # library calls its own functions directly.
  target_compile_options(${target} PRIVATE -ffunction-sections -fdata-sections -fno-semantic-interposition)
  target_link_options(${target} PRIVATE -Wl,--gc-sections -Wl,-Bsymbolic-functions)
  target_compile_options(${target} PRIVATE ${KORVO_FRAME_FLAGS})
endfunction()
