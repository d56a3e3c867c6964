# Headers, libraries, programs, manual pages and the package files for find_package and pkg-config.
include(CMakePackageConfigHelpers)

set(tarn_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Tarn)
set(tarn_libraries Tarn)
if(TARGET TarnRecorder)
  set_target_properties(TarnRecorder PROPERTIES EXPORT_NAME Recorder)
  list(APPEND tarn_libraries TarnRecorder)
endif()

install(TARGETS ${tarn_libraries} EXPORT TarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(EXPORT TarnTargets NAMESPACE Tarn:: DESTINATION ${tarn_package_dir} COMPONENT development)

foreach(folder base fat chunk manager mesg db dblog api)
  install(DIRECTORY src/${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn COMPONENT development
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY recorder DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn COMPONENT development
  FILES_MATCHING PATTERN "*.h")

configure_package_config_file(cmake/TarnConfig.cmake.in ${PROJECT_BINARY_DIR}/TarnConfig.cmake
  INSTALL_DESTINATION ${tarn_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnConfig.cmake ${PROJECT_BINARY_DIR}/TarnConfigVersion.cmake
  DESTINATION ${tarn_package_dir} COMPONENT development)
foreach(module tarn tarn-recorder)
  configure_file(cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endforeach()

foreach(program tarn-server tarn)
  if(TARGET ${program})
    install(TARGETS ${program} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
  endif()
endforeach()
# The library calls this one by its fixed path, /usr/local/bin/dbsetup: with the default prefix it
# lands there.
if(TARGET dbsetup)
  install(TARGETS dbsetup DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
endif()

file(GLOB tarn_man1 CONFIGURE_DEPENDS docs/man/*.1)
file(GLOB tarn_man8 CONFIGURE_DEPENDS docs/man/*.8)
install(FILES ${tarn_man1} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT programs)
install(FILES ${tarn_man8} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT programs)
