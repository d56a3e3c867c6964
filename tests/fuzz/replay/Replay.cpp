// replay TARGET FOLDER: runs a fuzz target on each input of a folder.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"

extern "C" {
int fuzz_volume(const uint8_t* data, size_t size);
int fuzz_manage(const uint8_t* data, size_t size);
int fuzz_journal(const uint8_t* data, size_t size);
int fuzz_recovery(const uint8_t* data, size_t size);
int fuzz_check(const uint8_t* data, size_t size);
int fuzz_log(const uint8_t* data, size_t size);
int fuzz_annexb(const uint8_t* data, size_t size);
int fuzz_request(const uint8_t* data, size_t size);
int fuzz_image(const uint8_t* data, size_t size);
int begin_image(int*, char***);
}

namespace {

struct Target {
  const char* name;
  int (*one)(const uint8_t*, size_t);
};
constexpr Target kTargets[] = {
    {"volume", fuzz_volume},     {"manage", fuzz_manage},   {"journal", fuzz_journal},
    {"recovery", fuzz_recovery}, {"check", fuzz_check},     {"log", fuzz_log},
    {"annexb", fuzz_annexb},     {"request", fuzz_request}, {"image", fuzz_image},
};

void begin(const std::string& name) {
  tarn_fuzz::muteStandardOutput();
  if (name == "image") begin_image(nullptr, nullptr);
  if (name != "image" && name != "annexb") tarn_fuzz::FuzzCard::get();
}

std::vector<std::string> inputs(const char* folder) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    paths.push_back(entry.path().string());
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

int main(int argc, char** argv) {
  const Target* target = nullptr;
  for (const Target& one : kTargets) {
    if (argc == 3 && strcmp(one.name, argv[1]) == 0) target = &one;
  }
  if (target == nullptr) return 2;
  begin(target->name);
  size_t count = 0;
  for (const std::string& path : inputs(argv[2])) {
    fprintf(stderr, "%s\n", path.c_str());  // the last one is what failed
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    target->one(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++count;
  }
  return count > 0 ? 0 : 1;  // an empty corpus shows nothing
}
