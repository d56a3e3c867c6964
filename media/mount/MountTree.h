#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/serve/ServedRows.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// What stands behind a number of a mounted card: a folder or a movie. Numbers are made of what they
// name, so that the same thing has the same one at any time.
struct MountId {
  enum class Kind : uint8_t {
    kNone,
    kRoot,
    kDay,
    kChannel,
    kEvents,
    kRecording,
    kRunningRecording,
    kEventMovie,
    kRunningEventMovie
  };
  Kind kind = Kind::kNone;
  uint32_t key = 0;     // a day as 20260301, a recording's or an event's key
  uint8_t channel = 0;  // as kNoChannel says

  static constexpr uint8_t kNoChannel = 128;  // whose recordings the card does not tell

  TARN_API static MountId of(uint64_t number);
  TARN_API uint64_t number() const;
  bool isEvent() const { return kind == Kind::kEventMovie || kind == Kind::kRunningEventMovie; }
  // Of a movie: it grows. It is another one than that which it becomes.
  bool runs() const { return kind == Kind::kRunningRecording || kind == Kind::kRunningEventMovie; }
  bool isFolder() const { return kind >= Kind::kRoot && kind <= Kind::kEvents; }
};

// A name in a folder.
struct MountName {
  std::string name;
  MountId id;
};
struct MountFolder {
  MountId parent;
  std::vector<MountName> names;  // in order
  uint32_t changed = 0;          // seconds: the latest of what is in it
};

// The names of a mounted card, made of the rows of one moment: a folder for each day, in it one for
// each channel, and one for events. Never changes once it is made, so any thread.
class MountTree {
 public:
  // `channel`: only this one.
  MountTree(std::shared_ptr<const ServedRows> rows, std::optional<int> channel);

  const ServedRows& rows() const { return *rows_; }
  // Null: there is no such folder.
  const MountFolder* folder(MountId id) const;
  // Null: the folder has no such name.
  const MountName* find(MountId folder, const std::string& name) const;
  // Recordings of pictures of a channel that show anything of a time, in its order.
  std::vector<DB_STREAM> picturesOf(uint8_t channel, PictureTime from, PictureTime to) const;
  // The same of sound.
  std::vector<DB_STREAM> soundOf(uint8_t channel, PictureTime from, PictureTime to) const;
  const DB_EVENT* event(uint32_t key) const;

  static uint8_t channelOf(const ServedRecording& recording);

 private:
  using Times = std::map<uint8_t, std::vector<uint32_t>>;  // places in rows, in the order of time

  void addRecordings(const Times& times, bool sound);
  void addEvents();
  MountFolder* folderOf(MountId id, MountId parent, const std::string& name);
  void add(MountId day, MountId folder, const std::string& folderName, const MountName& name,
           uint32_t changed);
  void sortNames();
  std::vector<DB_STREAM> during(const Times& times, uint8_t channel, PictureTime from,
                                PictureTime to) const;

  std::shared_ptr<const ServedRows> rows_;
  std::optional<int> channel_;
  Times pictures_;
  Times sound_;
  std::map<uint64_t, MountFolder> folders_;
};

}  // namespace tarn
