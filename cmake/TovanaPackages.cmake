# Debian packages of what TovanaInstall.cmake installs, by CPack, for the release that they are built on:
#   tovana-embed                     the tool
#   libtovana-sentence-transformers  the model library, of which the others only know that it may be there
#   libtovana-embedding-dev          the libraries for hosts, as archives
# scripts/package configures for them and makes them. There are none for shared libraries, nor without the tool.
find_program(TOVANA_DPKG_QUERY dpkg-query)
mark_as_advanced(TOVANA_DPKG_QUERY)
if(NOT TOVANA_DPKG_QUERY OR BUILD_SHARED_LIBS OR NOT TOVANA_BUILD_TOOL)
  return()
endif()

set(TOVANA_PACKAGE_MAINTAINER "Whoever sets TOVANA_PACKAGE_MAINTAINER <maintainer@example.org>" CACHE STRING
  "Who answers for the packages: NAME <ADDRESS>")

cmake_host_system_information(RESULT system QUERY DISTRIB_ID)
cmake_host_system_information(RESULT system_version QUERY DISTRIB_VERSION_ID)
if(system STREQUAL "debian")
  set(system deb)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tovana-embedding)
set(CPACK_PACKAGE_VENDOR "${TOVANA_PACKAGE_MAINTAINER}")
# CPack puts every summary but its own default before each package's description, which has one.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_COMPONENTS_ALL tool model_library development)
set(CPACK_THREADS 0)  # for xz
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Below the version that a Debian of its own would have, and rising with the releases.
set(CPACK_DEBIAN_PACKAGE_RELEASE "1~${system}${system_version}")
set(CPACK_DEBIAN_PACKAGE_SOURCE "${CPACK_PACKAGE_NAME}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${TOVANA_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tovana-embed)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ca-certificates)
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "libtovana-sentence-transformers (= ${version})")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS bash-completion)
set(CPACK_DEBIAN_TOOL_DESCRIPTION "turn texts into vectors, and find texts by them
Texts, names and documentation of source code above all, become vectors, so
that similar ones can be found by the angle between them. The vectors come
from a hashing embedder that needs neither a model nor a network, from a
sentence-transformers model that runs in the process (for which the package
libtovana-sentence-transformers is wanted), or from an endpoint over HTTP.
.
tovana-embed embeds and searches the lines of a file, or the records of a file
of JSON lines; it fetches models, says what state a model is in, and tells
whether stored vectors have to be made again.")

set(CPACK_DEBIAN_MODEL_LIBRARY_PACKAGE_NAME libtovana-sentence-transformers)
set(CPACK_DEBIAN_MODEL_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MODEL_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MODEL_LIBRARY_PACKAGE_ENHANCES tovana-embed)
set(CPACK_DEBIAN_MODEL_LIBRARY_DESCRIPTION "sentence-transformers models for programs that embed by tovana
Models of sentence-transformers run in the process, on the processor, with
the vectors of the Python library and without Python.
.
tovana-embed, and daemons that link tovana-embedding, open this library when
it is there: nothing has to be configured. Without it they have their other
ways to embed, and say that local models are not installed.")

# depend_on(PACKAGE): adds it to `depends`, in the very version of upstream that the archives were compiled
# against: their ABI and that of the headers which they hold code of belong to it.
macro(depend_on package)
  execute_process(COMMAND "${TOVANA_DPKG_QUERY}" --show --showformat "\${Version}" "${package}"
    OUTPUT_VARIABLE upstream ERROR_QUIET)
  string(REGEX REPLACE "-[^-]*$" "" upstream "${upstream}")
  if(upstream)
    list(APPEND depends "${package} (>= ${upstream})" "${package} (<< ${upstream}.0~)")
  else()
    list(APPEND depends "${package}")
  endif()
endmacro()
set(depends "libcurl4-openssl-dev (>= 7.87) | libcurl-dev" "libssl-dev (>= 3.0)" libsqlite3-dev)
depend_on(libicu-dev)
depend_on(libsimdjson-dev)
depend_on(libspdlog-dev)
list(JOIN depends ", " CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtovana-embedding-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "libtovana-sentence-transformers (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "text embedding for a source-code search daemon (development files)
The C++20 library by which a daemon embeds texts: an engine chooses the
backend from the configuration and from what is installed, loads it in the
background, embeds with deadlines, and says at any moment what it is doing.
.
This package has the headers and archives of tovana::embedding and
tovana::sqlite, with their files for CMake and pkg-config.")

# Whose code is in the programs without being linked: their notices go with each package.
set(CPACK_TOVANA_TOOL_NOTICES libcli11-dev libtomlplusplus-dev nlohmann-json3-dev libspdlog-dev libfmt-dev
  libsimdjson-dev)
set(CPACK_TOVANA_MODEL_LIBRARY_NOTICES nlohmann-json3-dev libspdlog-dev libfmt-dev libsimdjson-dev)
set(CPACK_TOVANA_DEVELOPMENT_NOTICES nlohmann-json3-dev libspdlog-dev libfmt-dev libsimdjson-dev)

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH, where that is set
file(CONFIGURE OUTPUT changelog.Debian @ONLY CONTENT
"@CPACK_PACKAGE_NAME@ (@version@) unstable; urgency=medium

  * Version @PROJECT_VERSION@; changelog.gz tells what is new.

 -- @TOVANA_PACKAGE_MAINTAINER@  @date@
")
set(CPACK_TOVANA_SOURCE_DIR "${PROJECT_SOURCE_DIR}")
set(CPACK_TOVANA_CHANGELOG "${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/packaging/debian/stage.cmake")
include(CPack)
