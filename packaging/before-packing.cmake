# Run by cpack on the staged trees, one per component: what a Debian package has and an installed
# tree does not, and the other way round.
function(compress file)
  execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  string(TOUPPER ${component} upper)
  set(doc ${root}/usr/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(COPY ${CPACK_TARN_PACKAGING_DIR}/copyright ${CPACK_TARN_PACKAGING_DIR}/changelog
    DESTINATION ${doc} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  compress(${doc}/changelog)

  file(GLOB pages ${root}/usr/share/man/man*/*.[1-9])
  foreach(page ${pages})
    compress(${page})
  endforeach()

  if(EXISTS ${root}/usr/share/zsh/site-functions)
    file(RENAME ${root}/usr/share/zsh/site-functions ${root}/usr/share/zsh/vendor-completions)
  endif()

  # The loader finds libraries below /usr by itself.
  file(GLOB_RECURSE binaries ${root}/usr/bin/* ${root}/usr/lib/*/*.so.*)
  foreach(binary ${binaries})
    if(NOT IS_SYMLINK ${binary})
      file(RPATH_REMOVE FILE ${binary})
    endif()
  endforeach()
endforeach()
