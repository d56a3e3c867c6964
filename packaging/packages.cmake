# Debian packages, made by cpack in the build folder for the architecture that was built:
#   cpack --config build/release/CPackConfig.cmake -B build/release/packages
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Tarn developers <developers@tarn.example>")
set(CPACK_PACKAGE_VENDOR Tarn)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own

# The tree as it is for the prefix /usr, whatever prefix the build was configured with.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/before-packing.cmake)
set(CPACK_TARN_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library recorder development tools server)
if(TARGET TarnMedia)
  list(APPEND CPACK_COMPONENTS_ALL media mediadevelopment c cdevelopment python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE tarn)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(runtime_depends "")
set(sqlite_depends "")
set(tools_depends "")
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps knows installed packages only. A program built with Debian 12's compiler runs
  # with what Debian 12 has.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(runtime_depends "libc6 (>= 2.36), libgcc-s1 (>= 12), libstdc++6 (>= 12), ")
  set(sqlite_depends "libsqlite3-0 (>= 3.40), ")
  set(tools_depends "libfmt9 (>= 9.1), ")
  if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  endif()
endif()

# The units of a recorder. They are installed and not enabled: which of them a recorder needs is
# decided in its firmware. They start the tool, which records only where it was built with media.
set(without_media PATTERN tarn-record.service EXCLUDE PATTERN tarn-archive.* EXCLUDE)
if(TARGET TarnMedia)
  set(without_media "")
endif()
foreach(kind systemd:systemd/system tmpfiles.d:tmpfiles.d)
  string(REPLACE ":" ";" kind ${kind})
  list(GET kind 0 folder)
  list(GET kind 1 place)
  install(DIRECTORY ${CMAKE_CURRENT_LIST_DIR}/${folder}/ DESTINATION lib/${place} COMPONENT tools
    ${without_media})
endforeach()
if(TARGET TarnMedia)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/examples/record.conf
    ${CMAKE_CURRENT_LIST_DIR}/examples/archive.conf
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tarn-tools/examples COMPONENT tools)
endif()

set(same "(= ${PROJECT_VERSION})")
# tarn_package(component name section depends summary text)
macro(tarn_package component name section depends summary text)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  string(REGEX REPLACE ", $" "" CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${text}")
endmacro()
tarn_package(library libtarn1 libs "${runtime_depends}${sqlite_depends}"
  "storage library of a video recorder"
  "Classes that keep recorded video, its index and the system log in chunk files
of a FAT32 card that were allocated in advance, and mend them after a power
loss.")
tarn_package(recorder libtarnrecorder1 libs "${runtime_depends}${sqlite_depends}libtarn1 ${same}"
  "storage library of a video recorder (recorder's part)"
  "What a recorder needs around the storage library: card formatter, management
server, recovery, recording sessions and readers.")
tarn_package(development libtarn-dev libdevel "libtarn1 ${same}, libtarnrecorder1 ${same}"
  "storage library of a video recorder (development files)"
  "Headers, link names and the files for find_package(Tarn) and pkg-config.")
set(media_depends "")
if(TARGET TarnMedia)
  tarn_package(media libtarnmedia1 libs
    "${runtime_depends}libtarn1 ${same}, libtarnrecorder1 ${same}"
    "storage library of a video recorder (video files and streams)"
    "Reads H.264 video of files and streams for a recording, and writes recorded
pictures to video files. Separate because of the libraries that it needs.")
  tarn_package(mediadevelopment libtarnmedia-dev libdevel
    "libtarnmedia1 ${same}, libtarn-dev ${same}"
    "storage library of a video recorder (development files for video files and streams)"
    "Headers, link name and the files for find_package(Tarn) and pkg-config.")
  tarn_package(c libtarnc1 libs "${runtime_depends}tarn-tools ${same}"
    "storage library of a video recorder (cards for programs in C)"
    "Lists what is recorded on a card, gives each picture with its time, exports and
proves sealed files, for programs in C and other languages. The card is read by
the command tarn, and stays as it is.")
  tarn_package(cdevelopment libtarnc-dev libdevel "libtarnc1 ${same}"
    "storage library of a video recorder (development files for programs in C)"
    "Header, link name and the file for pkg-config.")
  tarn_package(python python3-tarn python "libtarnc1 ${same}, python3 (>= 3.9)"
    "cards of a video recorder for Python"
    "The module tarn: what is recorded on a card, each picture with its time, exports
and proofs of sealed files.")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
  set(media_depends "libtarnmedia1 ${same}, ")
endif()
tarn_package(tools tarn-tools utils
  "${runtime_depends}${tools_depends}${media_depends}libtarn1 ${same}, libtarnrecorder1 ${same}, tarn-server ${same}"
  "cards, recordings and exports of a video recorder"
  "The command tarn formats, checks and recovers cards, records and exports video
and lists what is recorded, on a recorder or in a private view of a card image.
With the systemd units that start a recorder in the right order.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "bubblewrap, fuse3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS rclone)
tarn_package(server tarn-server admin
  "${runtime_depends}${sqlite_depends}libtarn1 ${same}, libtarnrecorder1 ${same}"
  "management server of a video recorder"
  "The process that owns the management data of a recorder's card, and the command
that sets up the recorder's database.")

# Control files have their names from their files' names.
set(control ${PROJECT_BINARY_DIR}/packaging)
foreach(script postinst prerm)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/server.${script} ${control}/server/${script} COPYONLY)
endforeach()
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA ${control}/server/postinst ${control}/server/prerm)
configure_file(${CMAKE_CURRENT_LIST_DIR}/libraries.triggers ${control}/libraries/triggers COPYONLY)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${control}/libraries/triggers)
set(CPACK_DEBIAN_RECORDER_PACKAGE_CONTROL_EXTRA ${control}/libraries/triggers)
set(CPACK_DEBIAN_C_PACKAGE_CONTROL_EXTRA ${control}/libraries/triggers)
set(CPACK_DEBIAN_MEDIA_PACKAGE_CONTROL_EXTRA ${control}/libraries/triggers)

include(CPack)
