# The README's example, as a consumer of the installed library would take it. Sourced.
# shellcheck shell=bash disable=SC2034
expected_of_example='50 pictures, the last one of 8 bytes'

# write_consumer SOURCE_DIR FOLDER
# FOLDER/example.cpp, with a CMakeLists.txt that builds it as `example`.
write_consumer() {
  mkdir -p "$2"
  awk '/^```cpp$/ { code = 1; next } /^```$/ { code = 0 } code' "$1/README.md" >"$2/example.cpp"
  [ -s "$2/example.cpp" ] || { echo "README.md holds no example"; return 1; }
  cat >"$2/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(Consumer LANGUAGES CXX)
find_package(Tarn 1.0 REQUIRED)
add_executable(example example.cpp)
target_compile_features(example PRIVATE cxx_std_17)
target_link_libraries(example PRIVATE Tarn::Recorder Tarn::Tarn)
CMAKE
}
