#include "media/mount/MountTree.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

using Kind = MountId::Kind;

constexpr char kEventsName[] = "events";
// Of what still grows: a name of its own, so that whoever copies it gets the whole one later.
constexpr char kRunning[] = ".recording";
constexpr unsigned kKindShift = 48;
constexpr unsigned kKeyShift = 8;

struct LocalTime {
  uint32_t day = 0;
  char date[16] = {};
  char time[16] = {};
};

LocalTime localTime(uint32_t seconds) {
  const auto moment = static_cast<time_t>(seconds);
  struct tm local = {};
  localtime_r(&moment, &local);
  LocalTime made;
  made.day = static_cast<uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 +
                                   local.tm_mday);
  strftime(made.date, sizeof made.date, "%Y-%m-%d", &local);
  strftime(made.time, sizeof made.time, "%H-%M-%S", &local);
  return made;
}

std::string channelName(uint8_t channel) {
  return channel == MountId::kNoChannel ? "unknown" : "ch" + std::to_string(channel);
}

// What no .mp4 holds lies in a movie of the other kind.
const char* endingOf(const DB_STREAM& row) {
  const SoundCodec codec = isSound(row) ? soundCodecOf(row) : SoundCodec::kUnknown;
  return codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw ? ".mov" : ".mp4";
}

bool byName(const MountName& a, const MountName& b) { return a.name < b.name; }

}  // namespace

MountId MountId::of(uint64_t number) {
  if (number == 1) return {Kind::kRoot, 0, 0};
  return {static_cast<Kind>(number >> kKindShift & 0xFF),
          static_cast<uint32_t>(number >> kKeyShift), static_cast<uint8_t>(number & 0xFF)};
}

uint64_t MountId::number() const {
  if (kind == Kind::kRoot) return 1;
  return uint64_t{static_cast<uint8_t>(kind)} << kKindShift | uint64_t{key} << kKeyShift | channel;
}

uint8_t MountTree::channelOf(const ServedRecording& recording) {
  return recording.channel == ChunkChannels::kUnknown ? MountId::kNoChannel
                                                      : static_cast<uint8_t>(recording.channel);
}

MountTree::MountTree(std::shared_ptr<const ServedRows> rows, std::optional<int> channel)
    : rows_(std::move(rows)), channel_(channel) {
  for (uint32_t i = 0; i < rows_->recordings.size(); ++i) {
    const ServedRecording& one = rows_->recordings[i];
    if (channel_ && one.channel != *channel_) continue;
    (isSound(one.row) ? sound_ : pictures_)[channelOf(one)].push_back(i);
  }
  for (Times* times : {&pictures_, &sound_}) {
    for (auto& of : *times) {
      std::stable_sort(of.second.begin(), of.second.end(), [&](uint32_t a, uint32_t b) {
        return rows_->recordings[a].startUs() < rows_->recordings[b].startUs();
      });
    }
  }
  folders_[MountId{Kind::kRoot, 0, 0}.number()].parent = {Kind::kRoot, 0, 0};
  addRecordings(pictures_, false);
  addRecordings(sound_, true);
  addEvents();
  sortNames();
}

MountFolder* MountTree::folderOf(MountId id, MountId parent, const std::string& name) {
  const auto made = folders_.try_emplace(id.number());
  MountFolder* folder = &made.first->second;
  if (!made.second) return folder;
  folder->parent = parent;
  folders_[parent.number()].names.push_back({name, id});
  return folder;
}

void MountTree::add(MountId day, MountId folder, const std::string& folderName,
                    const MountName& name, uint32_t changed) {
  MountFolder* const to = folderOf(folder, day, folderName);
  to->names.push_back(name);
  for (MountFolder* above : {to, &folders_[day.number()], &folders_[1]})
    above->changed = std::max(above->changed, changed);
}

// Sound that lies beside pictures is in their movie.
void MountTree::addRecordings(const Times& times, bool sound) {
  for (const auto& [channel, places] : times) {
    for (const uint32_t place : places) {
      const DB_STREAM& row = rows_->recordings[place].row;
      const PictureTime start = {row.startDate, row.startMSec * 1000u};
      const PictureTime end = {row.endDate != 0 ? row.endDate : UINT32_MAX, 999999};
      if (sound && !picturesOf(channel, start, end).empty()) continue;
      const LocalTime at = localTime(row.startDate);
      const MountId day = {Kind::kDay, at.day, 0};
      folderOf(day, {Kind::kRoot, 0, 0}, at.date);
      // The channel is a part of the number, so a folder of one day is not that of another.
      const MountId folder = {Kind::kChannel, at.day, channel};
      const std::string name = std::string(at.time) + (sound ? "-sound" : "") +
                               (row.recSize == 0 ? kRunning : "") + endingOf(row);
      add(day, folder, channelName(channel),
          {name, {row.recSize == 0 ? Kind::kRunningRecording : Kind::kRecording, row.streamID, 0}},
          std::max(row.startDate, row.endDate));
    }
  }
}

void MountTree::addEvents() {
  for (const DB_EVENT& row : *rows_->events) {
    const EventPeriod period = periodOf(row);
    const LocalTime at = localTime(row.startDate);
    const MountId day = {Kind::kDay, at.day, 0};
    for (const auto& of : pictures_) {
      const std::vector<DB_STREAM> shown = picturesOf(of.first, period.from, period.to);
      if (shown.empty()) continue;
      const bool runs = row.endDate == 0 || shown.back().recSize == 0;
      const std::string name = std::string(at.time) + "-" + channelName(of.first) + "-trigger" +
                               std::to_string(row.extTrg) + (runs ? kRunning : "") + ".mp4";
      folderOf(day, {Kind::kRoot, 0, 0}, at.date);
      add(day, {Kind::kEvents, at.day, 0}, kEventsName,
          {name, {runs ? Kind::kRunningEventMovie : Kind::kEventMovie, row.eventID, of.first}},
          std::max(row.startDate, row.endDate));
    }
  }
}

// Of several of one name all but the first say which they are.
void MountTree::sortNames() {
  for (auto& folder : folders_) {
    std::vector<MountName>& names = folder.second.names;
    std::stable_sort(names.begin(), names.end(), byName);
    for (size_t i = names.size(); i-- > 1;) {
      if (names[i].name == names[i - 1].name)
        names[i].name.insert(names[i].name.find('.'), "-" + std::to_string(names[i].id.key));
    }
    std::stable_sort(names.begin(), names.end(), byName);
  }
}

const MountFolder* MountTree::folder(MountId id) const {
  const auto found = folders_.find(id.number());
  return found == folders_.end() ? nullptr : &found->second;
}

const MountName* MountTree::find(MountId id, const std::string& name) const {
  const MountFolder* in = folder(id);
  if (in == nullptr) return nullptr;
  const auto at = std::lower_bound(in->names.begin(), in->names.end(), MountName{name, {}}, byName);
  return at != in->names.end() && at->name == name ? &*at : nullptr;
}

// Recordings of a channel do not overlap but by what a repair or a clock did, which is little.
std::vector<DB_STREAM> MountTree::during(const Times& times, uint8_t channel, PictureTime from,
                                         PictureTime to) const {
  constexpr int kLookBack = 8;
  std::vector<DB_STREAM> shown;
  const auto of = times.find(channel);
  if (of == times.end()) return shown;
  auto at = std::upper_bound(
      of->second.begin(), of->second.end(), to.totalMicros(),
      [this](int64_t us, uint32_t place) { return us < rows_->recordings[place].startUs(); });
  for (int missed = 0; at != of->second.begin() && missed < kLookBack;) {
    const DB_STREAM& row = rows_->recordings[*--at].row;
    if (showsAnyOf(row, from, to)) {
      shown.push_back(row);
    } else {
      ++missed;
    }
  }
  std::reverse(shown.begin(), shown.end());
  return shown;
}

std::vector<DB_STREAM> MountTree::picturesOf(uint8_t channel, PictureTime from,
                                             PictureTime to) const {
  return during(pictures_, channel, from, to);
}

std::vector<DB_STREAM> MountTree::soundOf(uint8_t channel, PictureTime from, PictureTime to) const {
  return during(sound_, channel, from, to);
}

const DB_EVENT* MountTree::event(uint32_t key) const {
  const auto& events = *rows_->events;
  const auto at =
      std::lower_bound(events.begin(), events.end(), key,
                       [](const DB_EVENT& one, uint32_t wanted) { return one.eventID < wanted; });
  return at != events.end() && at->eventID == key ? &*at : nullptr;
}

}  // namespace tarn
