# How this project declares its targets. One folder is one target; what every target is compiled
# with hangs on the interface target tovana_options, so that nothing is set globally.

add_library(tovana_options INTERFACE)
target_compile_features(tovana_options INTERFACE cxx_std_20)
target_compile_options(tovana_options INTERFACE
  # Vectors must have the same digits whether or not the machine can fuse a multiply and an add.
  -ffp-contract=off)

# Private to the project's own files: not part of what an installed target asks of its users.
add_library(tovana_build_options INTERFACE)
target_link_libraries(tovana_build_options INTERFACE tovana_options)
target_compile_options(tovana_build_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>  # false positive of GCC 12 on "(" + std::to_string(n)
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror=thread-safety>
  $<$<BOOL:${TOVANA_WARNINGS_AS_ERRORS}>:-Werror>)
if(TOVANA_SANITIZE)
  target_compile_options(tovana_build_options INTERFACE
    -fsanitize=${TOVANA_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tovana_build_options INTERFACE -fsanitize=${TOVANA_SANITIZE})
endif()

# tovana_library(NAME SOURCES file… [PUBLIC target…] [PRIVATE target…])
# Makes the library tovana_NAME with the public name tovana::NAME. Its headers are included by their
# path from the project's root ("tovana/base/clock.h"), in the tree and installed.
function(tovana_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC;PRIVATE")
  set(target tovana_${name})
  add_library(${target} ${arg_SOURCES})
  add_library(tovana::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name} POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target}
    PUBLIC tovana_options ${arg_PUBLIC}
    PRIVATE $<BUILD_INTERFACE:tovana_build_options> ${arg_PRIVATE})
  set_property(GLOBAL APPEND PROPERTY TOVANA_LIBRARIES ${target})
endfunction()

# tovana_executable(NAME SOURCES file… [LINK target…])
function(tovana_executable name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE tovana_build_options ${arg_LINK})
endfunction()

# Installs every library made by tovana_library with its headers, for find_package(tovana-embedding).
function(tovana_install_package)
  include(CMakePackageConfigHelpers)
  set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tovana-embedding")
  get_property(libraries GLOBAL PROPERTY TOVANA_LIBRARIES)
  install(TARGETS tovana_options ${libraries} EXPORT tovana-embedding-targets)
  install(EXPORT tovana-embedding-targets NAMESPACE tovana:: DESTINATION "${package_dir}")
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/tovana" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
          FILES_MATCHING PATTERN "*.h")
  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tovana-embedding-config.cmake.in"
    "${PROJECT_BINARY_DIR}/tovana-embedding-config.cmake" INSTALL_DESTINATION "${package_dir}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/tovana-embedding-config-version.cmake"
    COMPATIBILITY SameMinorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/tovana-embedding-config.cmake"
                "${PROJECT_BINARY_DIR}/tovana-embedding-config-version.cmake"
          DESTINATION "${package_dir}")
endfunction()
