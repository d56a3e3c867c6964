#include "media/archive/ArchivedClips.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "media/archive/ArchiveNames.h"
#include "media/archive/DayIndex.h"

namespace tarn {
namespace {

constexpr char kErrClipsStopped[] = "stopped before the archive was read";
constexpr char kErrNotUnpacked[] =
    "is damaged and cannot be unpacked; what it says beside the clips' own lines is missing";
constexpr char kErrLines[] =
    " of its lines are damaged; what they say beside the clips' own lines is missing";
constexpr char kErrSidecar[] = "is damaged: it does not say what its clip is";

std::string recorderOf(const std::string& object) {
  const std::string before = folderOfRecorder("");
  const size_t end = object.find('/');
  return object.compare(0, before.size(), before) == 0 && end != std::string::npos
             ? object.substr(before.size(), end - before.size())
             : "";
}

auto identityOf(const ArchiveLine& event) {
  return std::make_tuple(event.startMs, event.endMs, event.trigger, event.preSeconds);
}

}  // namespace

bool ArchivedClips::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool ArchivedClips::readIndex(const std::string& name, DayIndex* index) {
  if (!index->read(endsIn(name, kPlainIndexName) ? kPlainIndexName : kIndexName))
    return fail(store_->error());
  if (index->isBroken()) damaged_.emplace_back(name, kErrNotUnpacked);
  if (index->brokenLines() > 0)
    damaged_.emplace_back(name, std::to_string(index->brokenLines()) + kErrLines);
  return true;
}

// What the index lacks.
bool ArchivedClips::readSidecars(const std::map<std::string, int64_t>& sizes, DayIndex* index) {
  std::set<std::string> listed;
  for (const auto& one : index->lines()) {
    if (!one.second.object.empty()) listed.insert(sidecarOf(one.second.object));
  }
  for (const auto& [name, bytes] : sizes) {
    if (!endsIn(name, kSidecarEnding) || listed.count(name) != 0) continue;
    const size_t before = index->lines().size();
    if (!index->addSidecar(name)) return fail(store_->error());
    if (index->lines().size() == before) damaged_.emplace_back(name, kErrSidecar);
  }
  return true;
}

// A line whose clip is not there is one of another archive, or of one that was cut short.
void ArchivedClips::take(const ArchiveLine& line, const std::map<std::string, int64_t>& sizes) {
  if (line.kind == "event") events_.push_back(line);
  const auto object = line.object.empty() ? sizes.end() : sizes.find(line.object);
  if (object == sizes.end()) return;
  if (object->second >= 0 && static_cast<uint64_t>(object->second) != line.bytes) {
    damaged_.emplace_back(line.object, kErrOtherClip);
    return;
  }
  if (line.part != 0) {
    laterParts_[line.object] = line;
  } else if (line.kind == "recording") {
    recordings_.push_back(line);
  } else if (line.kind == "event") {
    clipsOfEvents_.push_back(line);
  }
}

// The index says of which events there is no clip; sidecars what it lacks.
bool ArchivedClips::readDay(const std::string& day,
                            const std::vector<ArchiveStore::Object>& objects) {
  std::map<std::string, int64_t> sizes;
  for (const ArchiveStore::Object& object : objects) {
    if (object.name.compare(0, day.size() + 1, day + "/") == 0) sizes[object.name] = object.bytes;
  }
  DayIndex index(store_, day);
  const std::string name =
      day + (sizes.count(day + kIndexName) != 0 ? kIndexName : kPlainIndexName);
  if (sizes.count(name) != 0 && !readIndex(name, &index)) return false;
  if (!readSidecars(sizes, &index)) return false;
  for (const auto& one : index.lines()) take(one.second, sizes);
  return true;
}

std::vector<ArchiveLine> ArchivedClips::partsOf(const ArchiveLine& recording) const {
  std::vector<ArchiveLine> parts = {recording};
  for (uint32_t part = 2; part <= recording.parts; ++part) {
    const auto found = laterParts_.find(partName(recording.object, part));
    if (found == laterParts_.end() || found->second.part != part) return {};
    parts.push_back(found->second);
  }
  return parts;
}

// Whether recordings of the event's channel are there that show any of it.
bool ArchivedClips::isShown(const ArchiveLine& event) const {
  const int64_t fromMs = event.startMs - int64_t{event.preSeconds} * 1000;
  return std::any_of(recordings_.begin(), recordings_.end(), [&](const ArchiveLine& line) {
    return line.channel == event.channel && line.startMs <= event.endMs && line.endMs >= fromMs;
  });
}

void ArchivedClips::sort() {
  std::set<std::tuple<int, std::string, int64_t>> originals;
  for (const ArchiveLine& line : recordings_) {
    if (line.copyOf == 0) originals.insert({line.channel, line.media, line.startMs});
  }
  recordings_.erase(
      std::remove_if(recordings_.begin(), recordings_.end(),
                     [&](const ArchiveLine& line) {
                       return line.copyOf != 0 &&
                              originals.count({line.channel, line.media, line.startMs}) != 0;
                     }),
      recordings_.end());
  std::vector<ArchiveLine> alone;
  for (const ArchiveLine& line : clipsOfEvents_) {
    if (line.media == "video" && !isShown(line)) alone.push_back(line);
  }
  recordings_.insert(recordings_.end(), alone.begin(), alone.end());
  std::sort(recordings_.begin(), recordings_.end());
  std::sort(events_.begin(), events_.end(), [](const ArchiveLine& a, const ArchiveLine& b) {
    return identityOf(a) < identityOf(b);
  });
  events_.erase(std::unique(events_.begin(), events_.end(),
                            [](const ArchiveLine& a, const ArchiveLine& b) {
                              return identityOf(a) == identityOf(b);
                            }),
                events_.end());
}

bool ArchivedClips::read(const std::string& recorder, const StopAsked& stopAsked) {
  std::vector<ArchiveStore::Object> objects;
  if (!store_->list(recorder.empty() ? "" : folderOfRecorder(recorder), &objects))
    return fail(store_->error());
  std::set<std::string> days;
  std::set<std::string> recorders;
  for (const ArchiveStore::Object& object : objects) {
    const std::string own = recorderOf(object.name);
    if (own.empty() || dayOf(object.name).empty()) continue;
    recorders.insert(own);
    days.insert(dayOf(object.name));
  }
  if (recorders.empty()) return fail("there is no archive of a recorder");
  if (recorders.size() > 1)
    return fail("there are archives of several recorders; say which one with --recorder");
  for (const std::string& day : days) {
    if (stopAsked && stopAsked()) return fail(kErrClipsStopped);
    if (!readDay(day, objects)) return false;
  }
  sort();
  return true;
}

}  // namespace tarn
