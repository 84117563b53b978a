# Adds to the folders that become Debian packages what Debian wants in each; CPack runs it. What
# `cmake --install` installs has none of that.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${component}" COMPONENT)
  set(staged "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}")
  set(package "${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME}")
  set(documents "${staged}/share/doc/${package}")

  file(COPY "${CPACK_TOVANA_SOURCE_DIR}/packaging/debian/copyright" "${CPACK_TOVANA_CHANGELOG}"
    DESTINATION "${documents}")
  file(COPY_FILE "${CPACK_TOVANA_SOURCE_DIR}/CHANGELOG.md" "${documents}/changelog")
  foreach(notices IN LISTS CPACK_TOVANA_${COMPONENT}_NOTICES)
    if(EXISTS "/usr/share/doc/${notices}/copyright")
      file(MAKE_DIRECTORY "${documents}/notices")
      file(COPY_FILE "/usr/share/doc/${notices}/copyright" "${documents}/notices/${notices}")
    else()
      message(FATAL_ERROR "The notices of ${notices}, whose code is in ${package}, are not on this machine")
    endif()
  endforeach()
  if(EXISTS "${CPACK_TOVANA_SOURCE_DIR}/packaging/debian/${package}.lintian-overrides")
    file(MAKE_DIRECTORY "${staged}/share/lintian/overrides")
    file(COPY_FILE "${CPACK_TOVANA_SOURCE_DIR}/packaging/debian/${package}.lintian-overrides"
      "${staged}/share/lintian/overrides/${package}")
  endif()

  file(GLOB compressed "${documents}/changelog*" "${staged}/share/man/man*/*")
  foreach(file IN LISTS compressed)
    execute_process(COMMAND gzip -9nf "${file}" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()

  # What strip does by itself leaves lintian's wishes open.
  file(GLOB_RECURSE programs "${staged}/bin/*" "${staged}/*.so")
  file(GLOB_RECURSE archives "${staged}/*.a")
  foreach(program IN LISTS programs)
    execute_process(COMMAND strip --strip-unneeded --remove-section=.comment --remove-section=.note
      "${program}" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  foreach(archive IN LISTS archives)
    execute_process(COMMAND strip --strip-debug --remove-section=.comment --remove-section=.note
      --enable-deterministic-archives -p "${archive}" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()

  file(GLOB_RECURSE files LIST_DIRECTORIES true "${staged}/*")
  foreach(file IN LISTS files)
    if(NOT IS_DIRECTORY "${file}" AND NOT file MATCHES "/bin/[^/]*$")
      file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    elseif(IS_DIRECTORY "${file}")
      file(CHMOD "${file}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
        WORLD_READ WORLD_EXECUTE)
    endif()
  endforeach()
endforeach()
