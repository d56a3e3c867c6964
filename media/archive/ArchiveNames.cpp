#include "media/archive/ArchiveNames.h"

#include <algorithm>
#include <cstdio>

#include "recorder/card/CivilTime.h"

namespace tarn {

bool isRecorderName(const std::string& name) {
  constexpr size_t kLongest = 64;
  constexpr char kAllowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  return !name.empty() && name.size() <= kLongest &&
         name.find_first_not_of(kAllowed) == std::string::npos;
}

std::string folderOfRecorder(const std::string& recorder) { return "recorder=" + recorder; }

std::string folderOfDay(const std::string& recorder, int64_t ms) {
  const CivilTime time = civilTime(ms / 1000);
  char date[64];
  snprintf(date, sizeof date, "/date=%04d-%02d-%02d", time.year, time.month, time.day);
  return folderOfRecorder(recorder) + date;
}

std::string dayOf(const std::string& object) {
  const size_t date = object.find("/date=");
  const size_t end = date == std::string::npos ? date : object.find('/', date + 1);
  return end == std::string::npos ? "" : object.substr(0, end);
}

std::string clipName(const ArchiveLine& line, bool quickTime) {
  const CivilTime time = civilTime(line.startMs / 1000);
  char clock[64];
  snprintf(clock, sizeof clock, "/%02d%02d%02d%03d-", time.hour, time.minute, time.second,
           static_cast<int>(line.startMs % 1000));
  const std::string channel = line.channel < 0 ? "unknown" : std::to_string(line.channel);
  const std::string clip = folderOfDay(line.recorder, line.startMs) + "/ch=" + channel + clock +
                           (line.kind == "event" ? "e" : "r") + std::to_string(line.key) +
                           (quickTime ? ".mov" : ".mp4");
  return line.part < 2 ? clip : partName(clip, line.part);
}

std::string partName(const std::string& clip, uint32_t part) {
  const size_t dot = clip.rfind('.');
  return clip.substr(0, dot) + "-" + std::to_string(part) + clip.substr(dot);
}

bool isClipName(const ArchiveLine& line) {
  constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyz0123456789=-.";
  const std::string folder = folderOfDay(line.recorder, line.startMs) + "/ch=";
  if (!isRecorderName(line.recorder) || line.object.compare(0, folder.size(), folder) != 0)
    return false;
  const std::string name = line.object.substr(folder.size());
  const size_t slash = name.find('/');
  return slash != std::string::npos && slash > 0 && slash + 1 < name.size() &&
         name.substr(0, slash).find_first_not_of(kAllowed) == std::string::npos &&
         name.substr(slash + 1).find_first_not_of(kAllowed) == std::string::npos &&
         (endsIn(name, ".mp4") || endsIn(name, ".mov"));
}

std::string sidecarOf(const std::string& clip) {
  return clip.substr(0, clip.rfind('.')) + kSidecarEnding;
}

bool endsIn(const std::string& name, const std::string& ending) {
  return name.size() > ending.size() &&
         name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

}  // namespace tarn
