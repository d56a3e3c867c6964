#include "media/archive/ArchivedClips.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "media/archive/ArchiveNames.h"
#include "media/archive/DayIndex.h"

namespace tarn {
namespace {

constexpr char kErrClipsStopped[] = "stopped before the archive was read";

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

// The index says of which events there is no clip; sidecars what it lacks.
bool ArchivedClips::readDay(const std::string& day,
                            const std::vector<ArchiveStore::Object>& objects) {
  std::set<std::string> names;
  for (const ArchiveStore::Object& object : objects) {
    if (object.name.compare(0, day.size() + 1, day + "/") == 0) names.insert(object.name);
  }
  DayIndex index(store_, day);
  const char* const name = names.count(day + kIndexName) != 0 ? kIndexName : kPlainIndexName;
  if (names.count(day + name) != 0 && !index.read(name)) return fail(store_->error());
  std::set<std::string> listed;
  for (const auto& one : index.lines()) listed.insert(sidecarOf(one.second.object + "."));
  for (const std::string& one : names) {
    if (endsIn(one, kSidecarEnding) && listed.count(one) == 0 && !index.addSidecar(one))
      return fail(store_->error());
  }
  for (const auto& [identity, line] : index.lines()) {
    if (line.kind == "event") events_.push_back(line);
    if (line.object.empty() || names.count(line.object) == 0) continue;
    if (line.kind == "recording") recordings_.push_back(line);
    if (line.kind == "event") clipsOfEvents_.push_back(line);
  }
  return true;
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
