option(TARN_BUILD_TESTS "Build the tests (needs GoogleTest and bubblewrap)" OFF)
option(TARN_BUILD_BENCH "Build the benchmarks (needs Google Benchmark)" OFF)
option(TARN_BUILD_FUZZ "Build the fuzz targets (needs clang and its libFuzzer)" OFF)
option(TARN_TESTS_TOGETHER "For a tree that is only tested: several sources compiled as one" OFF)
option(TARN_WERROR "Treat warnings as errors" ON)
set(TARN_MEDIA AUTO CACHE STRING "Media commands of the tool, which need libavformat: AUTO, ON or OFF")
set(TARN_SANITIZE "" CACHE STRING "Sanitizers to build with, for example address,undefined")
# Plain char is unsigned on the ARM target; hosts build the same way unless a test run asks otherwise.
set(TARN_CHAR "unsigned" CACHE STRING "Signedness of plain char: unsigned or signed")

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
# An installed program finds the library beside it, wherever the tree was put.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

add_compile_options(-f${TARN_CHAR}-char)
# On the 32-bit target too, a card may be larger than 2 GiB and the clock may pass 2038: the card's
# own seconds are unsigned and last until 2106. No installed header depends on either.
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # Notes that older compilers passed some arguments of templates in another way: there are none here.
  add_compile_options(-Wno-psabi)
endif()
if(TARN_SANITIZE)
  # What sanitizers add to the code makes -O1 three times as slow to compile as GCC's -Og, and that twice as
  # slow as clang's code without the optimizer, which takes a quarter more time in tests of the libraries.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options(-O0)
  else()
    add_compile_options(-Og)
  endif()
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g1)
  add_link_options(-fsanitize=${TARN_SANITIZE})
endif()

# For what is built to test and never shipped. The build as shipped compiles each source by itself, and
# so shows what one lacks.
function(tarn_compiled_together)
  if(TARN_TESTS_TOGETHER)
    set_target_properties(${ARGN} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 10)
  endif()
endfunction()

# For what is not the product under test: in a tree that is only tested, clang compiles it where it is
# installed (cmake/quick-compiler), in half of the time where nothing is optimized.
function(tarn_compiled_quickly)
  if(TARN_TESTS_TOGETHER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    find_program(TARN_CLANG clang++-14)
    if(TARN_CLANG)
      set(launcher ${PROJECT_SOURCE_DIR}/cmake/quick-compiler ${CMAKE_CXX_COMPILER_LAUNCHER})
      set_target_properties(${ARGN} PROPERTIES CXX_COMPILER_LAUNCHER "${launcher}")
    endif()
  endif()
endfunction()

# Where each source is compiled by itself, and there is more of it than time.
function(tarn_precompiled target)
  if(TARN_SANITIZE AND NOT TARN_TESTS_TOGETHER)
    target_precompile_headers(${target} PRIVATE <algorithm> <functional> <map> <memory> <mutex> <optional>
      <string> <vector>)
  endif()
endfunction()
