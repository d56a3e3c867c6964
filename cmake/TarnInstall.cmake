# Headers, libraries, programs, manual pages and the package files for find_package and pkg-config.
include(CMakePackageConfigHelpers)

set(tarn_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)

install(TARGETS Tarn EXPORT TarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
set_target_properties(TarnRecorder PROPERTIES EXPORT_NAME Recorder)
install(TARGETS TarnRecorder EXPORT TarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT recorder NAMELINK_COMPONENT development)
if(TARGET TarnMedia)
  # A file of its own: whoever does without video files installs none of this.
  set_target_properties(TarnMedia PROPERTIES EXPORT_NAME Media)
  install(TARGETS TarnMedia EXPORT TarnMediaTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT media NAMELINK_COMPONENT mediadevelopment)
  set_target_properties(TarnC PROPERTIES EXPORT_NAME C)
  install(TARGETS TarnC EXPORT TarnMediaTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT c NAMELINK_COMPONENT cdevelopment)
  # Where Debian's Python looks below /usr; elsewhere PYTHONPATH names it.
  install(DIRECTORY capi/python/tarn DESTINATION lib/python3/dist-packages COMPONENT python
    FILES_MATCHING PATTERN "*.py")
  install(EXPORT TarnMediaTargets NAMESPACE Tarn:: DESTINATION ${tarn_package_dir}
    COMPONENT mediadevelopment)
endif()
install(EXPORT TarnTargets NAMESPACE Tarn:: DESTINATION ${tarn_package_dir} COMPONENT development)

include(cmake/TarnPublicHeaders.cmake)
# Headers lie below include/tarn as they lie below the folder from which the tree includes them, so
# that the same words include them in both.
function(tarn_install_headers component root)
  foreach(header ${ARGN})
    get_filename_component(folder ${header} DIRECTORY)
    install(FILES ${root}${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn/${folder}
      COMPONENT ${component})
  endforeach()
endfunction()
tarn_install_headers(development src/ ${TARN_PUBLIC_HEADERS})
tarn_install_headers(development "" ${TARN_RECORDER_PUBLIC_HEADERS})
if(TARGET TarnMedia)
  tarn_install_headers(mediadevelopment "" ${TARN_MEDIA_PUBLIC_HEADERS})
  tarn_install_headers(cdevelopment capi/ ${TARN_C_PUBLIC_HEADERS})
endif()

configure_package_config_file(cmake/TarnConfig.cmake.in ${PROJECT_BINARY_DIR}/TarnConfig.cmake
  INSTALL_DESTINATION ${tarn_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnConfig.cmake ${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  DESTINATION ${tarn_package_dir} COMPONENT development)
# pkg-config files name the prefix that is chosen only when the tree is installed.
set(at "@")
set(modules tarn tarn-recorder)
if(TARGET TarnMedia)
  list(APPEND modules tarn-media tarn-c)
endif()
foreach(module ${modules})
  set(component development)
  if(module STREQUAL "tarn-media")
    set(component mediadevelopment)
  elseif(module STREQUAL "tarn-c")
    set(component cdevelopment)
  endif()
  configure_file(cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc.in @ONLY)
  set(place "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/${module}.pc")
  install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/${module}.pc.in\" \"\$ENV{DESTDIR}${place}\" @ONLY)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"${place}\")" COMPONENT ${component})
endforeach()

# The library calls dbsetup by its fixed path, /usr/local/bin/dbsetup: with the default prefix it
# lands there. A package links it there.
install(TARGETS tarn DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
if(TARGET tarn-video)
  # What the tool becomes for video; nobody starts it by name.
  install(TARGETS tarn-video DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/tarn COMPONENT tools)
  set_target_properties(tarn-video PROPERTIES INSTALL_RPATH "$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}")
endif()
install(TARGETS tarn-server dbsetup DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)

install(FILES docs/man/tarn.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES docs/man/tarn-server.8 docs/man/dbsetup.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT server)
# Where each shell looks for completions. Debian's zsh looks elsewhere in packages: before-packing.
install(FILES packaging/completions/tarn.bash RENAME tarn
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
install(FILES packaging/completions/_tarn
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/zsh/site-functions COMPONENT tools)
install(FILES packaging/completions/tarn.fish
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/fish/vendor_completions.d COMPONENT tools)
# What of other people's work is compiled in, as its licences ask for: most of it in the tool.
install(FILES NOTICES.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tarn-tools COMPONENT tools)
