#include "media/evidence/FileSum.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/FolderNames.h"
#include "base/UniqueFd.h"
#include "media/seal/Crypto.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

constexpr size_t kBlockBytes = size_t{256} * 1024;

std::string hexOf(const Digest::Value& value) {
  std::string text;
  for (const uint8_t byte : value) {
    for (const int digit : {byte >> 4, byte & 0xF}) text += "0123456789abcdef"[digit];
  }
  return text;
}

}  // namespace

std::string sumOf(const std::string& text) {
  Digest digest;
  digest.add(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  Digest::Value value;
  return digest.finish(&value) ? hexOf(value) : "";
}

bool sumFile(const std::string& folder, const std::string& name, const StopAsked& stopAsked,
             FileSum* sum, std::string* error) {
  const std::string path = folder + "/" + name;
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  *error = errnoText("cannot read " + path, errno);
  if (!file.valid()) return false;
  *sum = {name, 0, ""};
  Digest digest;
  std::vector<uint8_t> block(kBlockBytes);
  ssize_t got = 0;
  while ((got = TEMP_FAILURE_RETRY(read(file.get(), block.data(), block.size()))) > 0) {
    digest.add(block.data(), static_cast<size_t>(got));
    sum->bytes += static_cast<uint64_t>(got);
    if (!stopAsked || !stopAsked()) continue;
    *error = "stopped before its end";
    return false;
  }
  if (got < 0) *error = errnoText("cannot read " + path, errno);
  Digest::Value value;
  if (got < 0 || !digest.finish(&value)) return false;
  sum->sha256 = hexOf(value);
  error->clear();
  return true;
}

bool sumFolder(const std::string& folder, const StopAsked& stopAsked, std::vector<FileSum>* sums,
               std::string* error) {
  std::vector<std::string> paths;
  const int reading = pathsBelow(folder, &paths);
  if (reading != 0) {
    *error = errnoText("cannot read " + folder, reading);
    return false;
  }
  std::vector<std::string> names;
  for (const std::string& path : paths) {
    struct stat status = {};
    const std::string whole = inFolder(folder, path);
    if (whole[whole.rfind('/') + 1] == '.') continue;
    if (stat(whole.c_str(), &status) == 0 ? S_ISREG(status.st_mode) : errno != ENOENT)
      names.push_back(path);  // its bytes are an error, too, where the card does not give them
  }
  std::sort(names.begin(), names.end());
  return std::all_of(names.begin(), names.end(), [&](const std::string& name) {
    sums->emplace_back();
    return sumFile(folder, name, stopAsked, &sums->back(), error);
  });
}

}  // namespace tarn
