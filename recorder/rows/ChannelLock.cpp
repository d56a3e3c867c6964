#include "recorder/rows/ChannelLock.h"

#include <string>
#include <string_view>
#include <vector>

#include "base/FolderNames.h"

namespace tarn {
namespace {

constexpr char kFolder[] = "/tmp/";
constexpr std::string_view kPrefix = "tarn-channel-";
constexpr std::string_view kSuffix = ".lock";

bool isChannelLock(std::string_view name) {
  return name.size() >= kPrefix.size() + kSuffix.size() &&
         name.substr(0, kPrefix.size()) == kPrefix &&
         name.substr(name.size() - kSuffix.size()) == kSuffix;
}

}  // namespace

// Not by glob(), which frees what it found twice when it gets no memory for more.
FileLock::Outcome tryAllChannels() {
  std::vector<std::string> names;
  if (folderNames(kFolder, &names) != 0) return FileLock::Outcome::kCannotOpen;
  FileLock::Outcome outcome = FileLock::Outcome::kTaken;
  for (size_t i = 0; i < names.size() && outcome == FileLock::Outcome::kTaken; ++i) {
    if (isChannelLock(names[i])) outcome = FileLock().take((kFolder + names[i]).c_str(), false);
  }
  return outcome;
}

}  // namespace tarn
