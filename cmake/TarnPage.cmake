# Makes a source of the files of the page: cmake -DOUT=... -DFILES=a;b -P TarnPage.cmake
set(arrays "")
set(table "")
set(number 0)
foreach(file ${FILES})
  get_filename_component(name ${file} NAME)
  file(READ ${file} bytes HEX)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(APPEND arrays "constexpr uint8_t kFile${number}[] = {${bytes}0};\n")
  string(APPEND table "      {\"${name}\", kFile${number}, ${size}},\n")
  math(EXPR number "${number} + 1")
endforeach()
set(text "// Made by cmake/TarnPage.cmake of programs/tarn/page/.\n#include \"video/PageFiles.h\"\n
namespace tarn {\nnamespace {\n\n${arrays}\n}  // namespace\n
std::vector<PageFile> pageFiles() {\n  return {\n${table}  };\n}\n\n}  // namespace tarn\n")
file(WRITE ${OUT} "${text}")
