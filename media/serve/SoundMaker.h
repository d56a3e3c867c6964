#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaOutput.h"
#include "media/export/SoundExport.h"
#include "media/serve/ServedRows.h"

namespace tarn {

// How recordings of sound are to be decoded, and the frames of a stretch of time. Any number of
// threads.
class TARN_API SoundMaker {
 public:
  struct Description {
    uint32_t streamID = 0;
    std::string codec;  // "mp4a.40.2", "opus"; "": a browser does not decode it, as G.711
    std::shared_ptr<const OutputSound> first;  // a frame of it, whose format is that of all
  };

  // Of a recording; null when no block of it can be read. Those asked for last are kept.
  std::shared_ptr<const Description> describe(const ServedRecording& recording);

  // The channel's recordings that have anything between two times, in the order of time.
  static std::vector<DB_STREAM> rowsOf(const ServedRows& rows, int channel, int64_t fromUs,
                                       int64_t toUs);
  // How far the sound of a running recording is safe, at least; 0 when it cannot be told.
  static int64_t safeUntil(const ServedRecording& recording);

 private:
  static constexpr size_t kKept = 64;

  std::mutex mutex_;
  std::list<std::shared_ptr<const Description>> kept_;  // guarded by mutex_; the latest first
};

// Frames of one format that begin in a stretch of time, [fromUs, toUs), so that stretches side by
// side have each once. Used by one thread.
class SoundFrames {
 public:
  SoundFrames(std::vector<DB_STREAM> rows, const SoundFormat& format, int64_t fromUs, int64_t toUs);
  // The frame at hand; null behind the last.
  const OutputSound* frame() const { return there_ ? &sound_.sound() : nullptr; }
  void next();

 private:
  SoundExport sound_;
  const SoundFormat format_;
  const int64_t fromUs_;
  const int64_t toUs_;
  bool there_ = true;
};

}  // namespace tarn
