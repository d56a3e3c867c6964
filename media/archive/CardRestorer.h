#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaInput.h"
#include "media/archive/ArchiveStore.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// Puts the recordings and events of an archive back onto the recorder's card, each once its hash
// and its seal are proven, at their times and on their channels, the oldest first. What is there
// stays, and nothing goes to make room. A run that was interrupted is completed by the next one.
// Needs database and management server, and is, as every RecordingSession, of the one process that
// may record.
//
// Throws nothing. Used by one thread.
class TARN_API CardRestorer {
 public:
  struct Settings {
    std::string place;                     // NAME:PATH of rclone's, or a directory
    std::string recorder;                  // "": the only one that the place has
    std::optional<PictureTime> since;      // only what ends then or later
    std::vector<std::string> authorities;  // PEM: of these one vouches for the seal of every clip
    uint32_t patienceSeconds = kPatienceSeconds;
  };
  struct Report {
    struct Failure {
      std::string object;
      std::string reason;
    };
    std::vector<std::string> restored;  // clips, in that order
    uint64_t present = 0;               // that were there already
    uint64_t events = 0;                // that were listed anew
    std::vector<Failure> failures;      // clips that are not what the archive says, or no clips
  };
  // Told as it goes: the clip at hand, how many are done and how many there are.
  using Progress = std::function<void(const std::string& clip, size_t done, size_t clips)>;

  explicit CardRestorer(const Settings& settings) noexcept;
  ~CardRestorer();
  CardRestorer(const CardRestorer&) = delete;
  CardRestorer& operator=(const CardRestorer&) = delete;

  // Once. True when all there is in the archive is on the card: otherwise see error() and report().
  // A program that ends behind it calls CDbLog::finish() first.
  bool run(const StopAsked& stopAsked, const Progress& progress) noexcept;
  const Report& report() const noexcept;
  const char* error() const noexcept;  // why it ended early; "" when it did not

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
