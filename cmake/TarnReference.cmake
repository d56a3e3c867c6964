# The interface's reference, from the public headers: cmake --build BUILD --target reference, then
# BUILD/reference/html/index.html.
find_program(TARN_DOXYGEN doxygen)
set(TARN_REFERENCE_INPUT "")
foreach(header ${TARN_PUBLIC_HEADERS})
  string(APPEND TARN_REFERENCE_INPUT " \\\n  ${PROJECT_SOURCE_DIR}/src/${header}")
endforeach()
foreach(header ${TARN_RECORDER_PUBLIC_HEADERS} ${TARN_MEDIA_PUBLIC_HEADERS})
  string(APPEND TARN_REFERENCE_INPUT " \\\n  ${PROJECT_SOURCE_DIR}/${header}")
endforeach()
foreach(header ${TARN_C_PUBLIC_HEADERS})
  string(APPEND TARN_REFERENCE_INPUT " \\\n  ${PROJECT_SOURCE_DIR}/capi/${header}")
endforeach()
configure_file(docs/reference/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(TARN_DOXYGEN)
  add_custom_target(reference COMMAND ${TARN_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile VERBATIM
    COMMENT "Reference of the interface in ${PROJECT_BINARY_DIR}/reference/html")
endif()
