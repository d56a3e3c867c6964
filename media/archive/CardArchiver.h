#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/Export.h"
#include "media/MediaInput.h"
#include "media/archive/ArchiveReport.h"
#include "media/archive/ArchiveStore.h"
#include "media/seal/SealRequest.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// Archives what the recorder's card holds, in the layout of docs/fleet.md: what the archive has
// already stays as it is, and what a former run has begun is completed. Nothing of it is noted on
// the card, and nothing but this program's own temporary objects is removed. Needs the recorder's
// database; recording may go on meanwhile.
//
// Throws nothing. Used by one thread.
class TARN_API CardArchiver {
 public:
  struct Settings {
    std::string place;                 // NAME:PATH of rclone's, or a directory
    std::string recorder;              // "": the number of the card's volume
    std::optional<PictureTime> since;  // only what ends then or later
    uint64_t bytesPerSecond = 0;       // to send at most; 0: as many as there are
    uint32_t patienceSeconds =
        kPatienceSeconds;    // that a remote may move nothing before it is given up
    bool trustSize = false;  // no reading back from a remote that tells no hash
    // The clips of these events, and nothing else.
    std::optional<std::set<uint32_t>> onlyEvents;
    bool whileRecording = false;      // reads make way for whoever records
    std::optional<SealRequest> seal;  // seals what is sent
    bool dryRun = false;              // tells what is to be sent, and sends nothing
  };
  // Told as it goes: the clip at hand, how many of them are done and how many there are, and bytes
  // that were sent in all.
  using Progress =
      std::function<void(const std::string& clip, size_t done, size_t clips, uint64_t bytes)>;

  explicit CardArchiver(const Settings& settings) noexcept;
  ~CardArchiver();
  CardArchiver(const CardArchiver&) = delete;
  CardArchiver& operator=(const CardArchiver&) = delete;

  // Once. True when all that is over is in the archive, whole: otherwise see error() and report().
  bool run(const StopAsked& stopAsked, const Progress& progress) noexcept;
  const ArchiveReport& report() const noexcept;
  const char* error() const noexcept;  // why it ended early; "" when it did not

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
