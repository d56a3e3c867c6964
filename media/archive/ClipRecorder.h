#pragma once

#include <string>
#include <utility>
#include <vector>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

inline constexpr char kErrRestoreStopped[] =
    "stopped before all was restored; the next run goes on from there";

class RecordingSession;

// Records a clip of an archive as it was recorded once. No more goes onto the card than the clip's
// lines tell of: whoever made it may be anybody. Not part of the interface.
class ClipRecorder {
 public:
  struct Part {
    std::string path;
    ArchiveLine line;
  };
  // The clip, of one part or several; the first one's line tells channel, times and trigger.
  ClipRecorder(std::vector<Part> parts, StopAsked stopAsked)
      : parts_(std::move(parts)), line_(parts_.front().line), stopAsked_(std::move(stopAsked)) {}

  // One recording, to its end. False with error() set; then isOfClip() tells whether the clip is to
  // blame, or the card.
  bool run();
  bool isOfClip() const { return ofClip_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool failClip(const std::string& text);
  bool recordPictures();
  bool recordPictures(const Part& part, RecordingSession* session);
  bool recordSound(const Part& part);
  bool counts(const ArchiveLine& line, size_t bytes, uint64_t pieces, uint64_t most);
  bool isInTime(int64_t us) const;
  static PictureTime timeOf(const ArchiveLine& line, int64_t us);

  const std::vector<Part> parts_;
  const ArchiveLine& line_;  // of the first part
  uint64_t bytes_ = 0;       // that were recorded of a part
  const StopAsked stopAsked_;
  bool ofClip_ = false;
  std::string error_;
};

}  // namespace tarn
