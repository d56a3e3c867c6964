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
int fuzz_read(const uint8_t* data, size_t size);
int fuzz_undo(const uint8_t* data, size_t size);
int fuzz_sound(const uint8_t* data, size_t size);
int fuzz_config(const uint8_t* data, size_t size);
int fuzz_argument(const uint8_t* data, size_t size);
int fuzz_container(const uint8_t* data, size_t size);
int fuzz_track(const uint8_t* data, size_t size);
int fuzz_sealed(const uint8_t* data, size_t size);
int fuzz_serve(const uint8_t* data, size_t size);
int begin_card(int*, char***);
int begin_image(int*, char***);
int begin_argument(int*, char***);
int begin_track(int*, char***);
int begin_serve(int*, char***);
}

namespace {

struct Target {
  const char* name;
  int (*one)(const uint8_t*, size_t);
  int (*begin)(int*, char***);
};
constexpr Target kTargets[] = {
    {"volume", fuzz_volume, begin_card},    {"manage", fuzz_manage, begin_card},
    {"journal", fuzz_journal, begin_card},  {"recovery", fuzz_recovery, begin_card},
    {"check", fuzz_check, begin_card},      {"read", fuzz_read, begin_card},
    {"log", fuzz_log, begin_card},          {"annexb", fuzz_annexb, nullptr},
    {"request", fuzz_request, begin_card},  {"image", fuzz_image, begin_image},
    {"undo", fuzz_undo, begin_card},        {"sound", fuzz_sound, nullptr},
    {"config", fuzz_config, nullptr},       {"argument", fuzz_argument, begin_argument},
#ifdef TARN_WITH_MEDIA
    {"container", fuzz_container, nullptr}, {"track", fuzz_track, begin_track},
    {"sealed", fuzz_sealed, nullptr},
#endif
#ifdef TARN_WITH_SERVE
    {"serve", fuzz_serve, begin_serve},
#endif
};

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
  tarn_fuzz::muteStandardOutput();
  if (target->begin != nullptr) target->begin(nullptr, nullptr);
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
