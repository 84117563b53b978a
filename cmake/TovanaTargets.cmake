# How this project declares its targets. A folder is a static library of the project's own, and what hosts
# link is made of several folders. What the project's files are compiled with hangs on
# tovana_build_options; none of it reaches a host's own files.

add_library(tovana_build_options INTERFACE)
target_compile_features(tovana_build_options INTERFACE cxx_std_20)
target_compile_options(tovana_build_options INTERFACE
  # Vectors must have the same digits whether or not the machine can fuse a multiply and an add.
  -ffp-contract=off
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
# Makes the library tovana_NAME, tovana::NAME within the project. Its headers are included by their path
# from the project's root ("tovana/base/clock.h"), in the tree and installed.
function(tovana_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;PUBLIC;PRIVATE")
  set(target tovana_${name})
  add_library(${target} STATIC ${arg_SOURCES})
  add_library(tovana::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    UNITY_BUILD OFF  # files have names of their own that others have, too
    POSITION_INDEPENDENT_CODE ON)
  target_include_directories(${target} PUBLIC "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC} PRIVATE tovana_build_options ${arg_PRIVATE})
endfunction()

# tovana_public_library(NAME FOLDERS name… HEADERS file… [PUBLIC target…] [PRIVATE target…])
# Makes tovana::NAME for hosts, static or shared as BUILD_SHARED_LIBS says, of the folders' objects and
# the headers that hosts may include.
function(tovana_public_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "FOLDERS;HEADERS;PUBLIC;PRIVATE")
  list(TRANSFORM arg_FOLDERS REPLACE "(.+)" "$<TARGET_OBJECTS:tovana_\\1>" OUTPUT_VARIABLE objects)
  set(target tovana_${name})
  add_library(${target} ${objects})
  add_library(tovana::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    LINKER_LANGUAGE CXX
    EXPORT_NAME ${name}
    # The interface may change with the minor version until 1.0.
    VERSION "${PROJECT_VERSION}"
    SOVERSION "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}"
    LINK_DEPENDS "${PROJECT_SOURCE_DIR}/cmake/exports.map"
    VERIFY_INTERFACE_HEADER_SETS ON)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_sources(${target} PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${arg_HEADERS})
  target_link_libraries(${target} PUBLIC ${arg_PUBLIC} PRIVATE $<BUILD_INTERFACE:tovana_build_options> ${arg_PRIVATE})
  if(BUILD_SHARED_LIBS)
    target_compile_definitions(${target} PUBLIC TOVANA_SHARED)
    foreach(folder IN LISTS arg_FOLDERS)
      target_compile_definitions(tovana_${folder} PRIVATE TOVANA_SHARED)
    endforeach()
    target_link_options(${target} PRIVATE "LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map" LINKER:--no-undefined
      LINKER:--as-needed)
  endif()
endfunction()

# tovana_executable(NAME SOURCES file… [LINK target…])
function(tovana_executable name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE tovana_build_options ${arg_LINK})
endfunction()
