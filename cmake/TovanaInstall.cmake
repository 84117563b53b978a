# What is installed, and where; each part is a component of its own, for packages:
#   tool           tovana-embed, its manual page and its completions
#   model_library  what the local backend opens
#   libraries      the libraries that hosts link, when those are shared
#   development    their headers, archives and package files
include(CMakePackageConfigHelpers)

set(model_library_dir "${CMAKE_INSTALL_LIBDIR}/tovana")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tovana-embedding")

if(TOVANA_BUILD_TOOL)
  install(TARGETS tovana-embed RUNTIME COMPONENT tool)
  install(FILES "${PROJECT_SOURCE_DIR}/docs/man/tovana-embed.1"
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tool)
  install(FILES "${PROJECT_SOURCE_DIR}/apps/tovana-embed/completion.bash"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME tovana-embed COMPONENT tool)
endif()

install(TARGETS tovana_sentence_transformers LIBRARY DESTINATION "${model_library_dir}" COMPONENT model_library)

# install_for_hosts(NAME): tovana::NAME, and its pkg-config file tovana-NAME.pc.
function(install_for_hosts name)
  install(TARGETS tovana_${name} EXPORT tovana-${name}-targets
    LIBRARY COMPONENT libraries NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    FILE_SET HEADERS COMPONENT development)
  install(EXPORT tovana-${name}-targets NAMESPACE tovana:: DESTINATION "${package_dir}" COMPONENT development)
  configure_file("${PROJECT_SOURCE_DIR}/cmake/tovana-${name}.pc.in" tovana-${name}.pc @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tovana-${name}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
endfunction()

# The folders as pkg-config files name them, wherever the package is moved to.
file(RELATIVE_PATH prefix_from_pkgconfig "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
file(RELATIVE_PATH libdir_from_prefix "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_LIBDIR}")
file(RELATIVE_PATH includedir_from_prefix "${CMAKE_INSTALL_PREFIX}" "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
if(BUILD_SHARED_LIBS)
  set(has_shared_libraries ON)
  set(pkgconfig_cflags -DTOVANA_SHARED)
else()
  set(has_shared_libraries OFF)  # a host's variable may be empty
  # The archive needs what it was compiled with, by its libraries alone: in `Requires`, their compiler
  # options would reach a host's files. A program that it was linked into finds the model library along its
  # RUNPATH, wherever the package is.
  set(pkgconfig_libs "-lcurl -licuuc -lssl -lcrypto -lsimdjson -lspdlog")
  if(TARGET fmt::fmt)  # which Debian's spdlog leaves to its users
    string(APPEND pkgconfig_libs " -lfmt")
  endif()
  set(pkgconfig_sqlite_libs "-lsqlite3")
  set(pkgconfig_rpath "\"-Wl,-rpath,\${libdir}/tovana\"")
endif()

install_for_hosts(embedding)
if(TOVANA_WITH_SQLITE)
  install_for_hosts(sqlite)
endif()

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tovana-embedding-config.cmake.in"
  tovana-embedding-config.cmake INSTALL_DESTINATION "${package_dir}" PATH_VARS model_library_dir)
write_basic_package_version_file(tovana-embedding-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tovana-embedding-config.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/tovana-embedding-config-version.cmake"
  DESTINATION "${package_dir}" COMPONENT development)
