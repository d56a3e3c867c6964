# Warnings for the product's own code. The sign, width and format ones catch what differs between
# the 32-bit target and 64-bit hosts.
function(tarn_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2
    -Wnon-virtual-dtor -Wcast-align -Wundef
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    $<$<BOOL:${TARN_WERROR}>:-Werror>)
endfunction()

# A release build of a library has debug information: the interface is compared by it (scripts/abi), and
# a core from the field is read with it. Packages are stripped.
function(tarn_debug_information target)
  if(NOT TARN_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
    target_compile_options(${target} PRIVATE $<$<CONFIG:Release>:-g>)
    if(TARN_TESTS_TOGETHER)
      # The interface's types are all that is asked for; where variables are is a quarter of the work.
      target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-var-tracking>)
    endif()
  endif()
endfunction()

# Those of the sources that have a line which begins so (a regular expression).
function(tarn_sources_with result line)
  set(found)
  foreach(source ${ARGN})
    file(STRINGS ${source} lines REGEX "^${line}")
    if(lines)
      list(APPEND found ${source})
    endif()
  endforeach()
  set(${result} ${found} PARENT_SCOPE)
endfunction()

# Those of the sources that can leave out a step.
macro(tarn_that_omit result)
  tarn_sources_with(${result} "#include \"base/Omission[.]h\"" ${ARGN})
endmacro()

# What to compile for the product's sources that LIST names: in a tree that is only tested some at a time
# as one (cmake/pieces). What a source lacks of includes shows in a package's build, which compiles each
# by itself, and in scripts/lint, which looks at each changed one.
function(tarn_in_pieces list name)
  if(NOT TARN_TESTS_TOGETHER)
    return()
  endif()
  set(made)
  tarn_that_omit(omitting ${${list}})
  set(${name} ${${list}})
  if(omitting AND NOT TARN_SANITIZE)
    # By themselves: the others' objects are in the recorder that leaves out steps, too.
    list(REMOVE_ITEM ${name} ${omitting})
    set(${name}_that_omit ${omitting})
  endif()
  foreach(part ${name} ${name}_that_omit)
    if(${part})
      execute_process(COMMAND ${PROJECT_SOURCE_DIR}/cmake/pieces ${CMAKE_CURRENT_BINARY_DIR}/${part} 40 ${${part}}
        OUTPUT_VARIABLE pieces OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
      string(REPLACE "\n" ";" pieces "${pieces}")
      list(APPEND made ${pieces})
    endif()
  endforeach()
  set(${list} ${made} PARENT_SCOPE)
endfunction()

# One static library per source folder; the shared library is made of all of them.
# Every source file of the folder belongs to it.
function(tarn_folder name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  if(NOT sources)
    return()
  endif()
  tarn_in_pieces(sources ${name}_pieces)
  add_library(tarn_${name} OBJECT ${sources})
  target_include_directories(tarn_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_compile_options(tarn_${name} PRIVATE -fno-exceptions)
  target_link_libraries(tarn_${name} PRIVATE SQLite::SQLite3 Threads::Threads)
  tarn_warnings(tarn_${name})
  tarn_debug_information(tarn_${name})
  set_property(GLOBAL APPEND PROPERTY TARN_FOLDER_OBJECTS $<TARGET_OBJECTS:tarn_${name}>)
endfunction()
