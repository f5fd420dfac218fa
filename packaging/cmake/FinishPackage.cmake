# Run by CPack before it packs: gives the tree of each package its changelog, compresses what Debian has
# compressed, and strips static libraries, which CPack leaves alone.
function(compress file)
  execute_process(COMMAND gzip --best --no-name --force "${file}" COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER "${component}" upper)
  set(share "${CPACK_TEMPORARY_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}/share")
  set(doc "${share}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  file(COPY "${CPACK_KX_DEBIAN_DIR}/changelog" DESTINATION "${doc}")
  compress("${doc}/changelog")
  file(GLOB pages "${share}/man/*/*.[0-9]")
  foreach(page IN LISTS pages)
    compress("${page}")
  endforeach()
endforeach()

file(GLOB_RECURSE archives "${CPACK_TEMPORARY_DIRECTORY}/*.a")
foreach(archive IN LISTS archives)
  execute_process(COMMAND "${CPACK_KX_STRIP}" --strip-debug --enable-deterministic-archives "${archive}"
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
