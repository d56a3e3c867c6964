#include "media/evidence/FinishedParts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include "base/FileSync.h"
#include "base/FolderNames.h"
#include "base/UniqueFd.h"
#include "media/RemoveTree.h"
#include "media/evidence/ExportedJson.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr char kVideo[] = "video";
constexpr size_t kSumDigits = 64;

std::string wholeLine(const Json& json) {
  const std::string text = json.dump(-1, ' ', true, Json::error_handler_t::replace);
  return sumOf(text) + " " + text + "\n";
}

// A file of the folder's video and nothing else: what is told may be anybody's.
bool isVideo(const std::string& name) {
  const std::string folder = std::string(kVideo) + "/";
  return name.compare(0, folder.size(), folder) == 0 &&
         name.find('/', folder.size()) == std::string::npos && name != folder + ".." &&
         name.find('\0') == std::string::npos;
}

bool sync(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  return file.valid() && syncFile(file.get()) == 0;
}

}  // namespace

bool FinishedParts::fail(const std::string& text) {
  error_ = text;
  return false;
}

// A line that a power loss tore is none.
bool FinishedParts::readLine(const std::string& line) {
  if (line.size() <= kSumDigits || sumOf(line.substr(kSumDigits + 1)) != line.substr(0, kSumDigits))
    return false;
  const Json json = Json::parse(line.substr(kSumDigits + 1), nullptr, false);
  if (json.is_discarded()) return false;
  Part part;
  part.of = json.at("of").get<std::string>();
  for (const Json& file : json.at("files")) part.files.push_back(exportedOf(file));
  for (const Json& sum : json.at("sums")) {
    part.sums.push_back({sum.at("name").get<std::string>(), sum.at("bytes").get<uint64_t>(),
                         sum.at("sha256").get<std::string>()});
    if (!isVideo(part.sums.back().name)) return false;
  }
  parts_[json.at("channel").get<int>()] = part;
  return true;
}

bool FinishedParts::isProven(const Part& part, const StopAsked& stopAsked) {
  return std::all_of(part.sums.begin(), part.sums.end(), [&](const FileSum& told) {
    FileSum found;
    std::string ignored;
    return sumFile(folder_, told.name, stopAsked, &found, &ignored) && found.bytes == told.bytes &&
           found.sha256 == told.sha256;
  });
}

// Video that no line tells of, or one whose file is another.
bool FinishedParts::removeStrange() {
  std::set<std::string> known;
  for (const auto& part : parts_) {
    for (const FileSum& sum : part.second.sums) known.insert(sum.name);
  }
  std::vector<std::string> names;
  const int reading = folderNames((folder_ + "/" + kVideo).c_str(), &names);
  if (reading != 0) return fail(errnoText("cannot read " + folder_ + "/" + kVideo, reading));
  for (const std::string& one : names) {
    const std::string name = std::string(kVideo) + "/" + one;
    const int removing = known.count(name) == 0 ? tryRemoveTree(folder_ + "/" + name) : 0;
    if (removing != 0) return fail(errnoText("cannot remove " + folder_ + "/" + name, removing));
  }
  return true;
}

// How many bytes of what a run told are whole lines.
size_t FinishedParts::readLines() {
  std::ifstream file(folder_ + "/" + kName, std::ios::binary);
  size_t good = 0;
  try {
    for (std::string line; std::getline(file, line) && !file.eof() && readLine(line);)
      good += line.size() + 1;
  } catch (const Json::exception&) {
    parts_.clear();  // of another version, which told other things
    good = 0;
  }
  return good;
}

bool FinishedParts::open(const StopAsked& stopAsked) {
  // What is added behind a torn line would never be read.
  const std::string path = folder_ + "/" + kName;
  const auto whole = static_cast<off_t>(readLines());
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
  if (file.valid() ? ftruncate(file.get(), whole) != 0 : errno != ENOENT)
    return fail(errnoText("cannot write " + path, errno));
  for (auto part = parts_.begin(); part != parts_.end();) {
    const bool proven = isProven(part->second, stopAsked);
    if (stopAsked && stopAsked()) return fail("stopped before its end");
    part = proven ? std::next(part) : parts_.erase(part);
  }
  return removeStrange();
}

void FinishedParts::remove(const Part& part) {
  std::error_code ignored;
  for (const FileSum& sum : part.sums) fs::remove(folder_ + "/" + sum.name, ignored);
}

const std::vector<ExportedChannel>* FinishedParts::find(int channel, const std::string& of) {
  const auto part = parts_.find(channel);
  if (part == parts_.end()) return nullptr;
  if (part->second.of == of) return &part->second.files;
  remove(part->second);
  parts_.erase(part);
  return nullptr;
}

bool FinishedParts::append(const std::string& line) {
  const std::string path = folder_ + "/" + kName;
  const UniqueFd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0666));
  const bool good =
      file.valid() && TEMP_FAILURE_RETRY(::write(file.get(), line.data(), line.size())) ==
                          static_cast<ssize_t>(line.size());
  return (good && syncFile(file.get()) == 0) || fail(errnoText("cannot write " + path, errno));
}

bool FinishedParts::add(int channel, const std::string& of,
                        const std::vector<ExportedChannel>& files) {
  Part part;
  part.of = of;
  part.files = files;
  Json json = {{"channel", channel}, {"of", of}, {"files", Json::array()}, {"sums", Json::array()}};
  for (const ExportedChannel& file : files) {
    FileSum& sum = part.sums.emplace_back();
    if (!sync(folder_ + "/" + file.path))
      return fail(errnoText("cannot write " + folder_ + "/" + file.path, errno));
    if (!sumFile(folder_, file.path, nullptr, &sum, &error_)) return false;
    json["files"].push_back(jsonOf(file));
    json["sums"].push_back({{"name", sum.name}, {"bytes", sum.bytes}, {"sha256", sum.sha256}});
  }
  if (!sync(folder_ + "/" + kVideo) || !append(wholeLine(json)) || !sync(folder_))
    return fail(errnoText("cannot write " + folder_, errno));
  parts_[channel] = part;
  return true;
}

}  // namespace tarn
