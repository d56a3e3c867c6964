#pragma once

#include <string>
#include <utility>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

inline constexpr char kErrRestoreStopped[] =
    "stopped before all was restored; the next run goes on from there";

// Records a clip of an archive as it was recorded once. Not part of the interface.
class ClipRecorder {
 public:
  // The clip lies at `path`; its line tells channel, times and trigger.
  ClipRecorder(const std::string& path, const ArchiveLine& line, StopAsked stopAsked)
      : path_(path), line_(line), stopAsked_(std::move(stopAsked)) {}

  // One recording, to its end. False with error() set; then isOfClip() tells whether the clip is to
  // blame, or the card.
  bool run();
  bool isOfClip() const { return ofClip_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool failClip(const std::string& text);
  bool recordPictures();
  bool recordSound();
  PictureTime timeOf(int64_t us) const;

  const std::string path_;
  const ArchiveLine& line_;
  const StopAsked stopAsked_;
  bool ofClip_ = false;
  std::string error_;
};

}  // namespace tarn
