#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RecordingStatistics.h"

namespace tarn {

// What a session of sound records and how.
struct SoundOptions {
  SoundFormat format;
  int8_t channel = 0;  // 0 to 127, that of the pictures which it belongs to
  int8_t recType = 0;
  uint16_t inTrg = 0;               // trigger number of the rows
  uint32_t bitrate = 0;             // bits per second, 0 when not known; stored
  uint32_t segmentSeconds = 60;     // a new row after this; 0: no limit
  uint32_t flushIntervalMs = 1000;  // sound that a power loss can take at most
};

// Records the sound of a channel onto the card, beside the RecordingSession of its pictures: in
// rows and chunks of its own, as it is coded, in blocks of frames that follow each other. Sound and
// pictures belong together by their times alone, so give both the same clock. One session fails
// without the other; open the one of the pictures first, as each takes a chunk.
//
// A frame is safe once the entry of its block is on the card: at most flushIntervalMs behind
// writeFrame(), at flush() and at close(). Used by one thread at a time, which may be another one
// than that of the pictures. As there, the program calls CDbLog::finish() when its last session is
// closed. Nothing throws.
class TARN_API SoundSession {
 public:
  SoundSession();
  ~SoundSession();  // close()
  SoundSession(const SoundSession&) = delete;
  SoundSession& operator=(const SoundSession&) = delete;

  // As RecordingSession::open(); a channel has one session of each. kBadOption also for a format
  // that cannot be kept, see isUsable().
  int open(const SoundOptions& options);

  // One frame, as the codec makes them: of G.711 as many samples as are at hand. `time`: when it
  // begins; `samples`: its length, of each channel. Both are below kSoundFrameLimit, and the size
  // is not 0. A frame that does not go on where the one before ended, to a quarter of its length,
  // leaves a gap; one that is more than a second before or 8 seconds behind it begins a new row. 0,
  // or -1 once the session has failed.
  int writeFrame(const void* frame, size_t size, PictureTime time, uint32_t samples);
  // What comes next begins a row that is marked as a discontinuity. 0 or -1.
  int markDiscontinuity();
  // Makes safe all frames so far. 0 or -1.
  int flush();
  // As RecordingSession::tick(), clockStepped() and clockBecameKnown().
  int tick();
  int clockStepped(int64_t deltaUs);
  int clockBecameKnown(int64_t deltaUs);
  // 0, or -1 when the session has failed.
  int close();

  bool isOpen() const;
  // Key of the row being written; 0 when there is none.
  uint32_t streamID() const;
  // First error, with a sentence for a person. Kept until the next open().
  RecordingError error() const;
  const char* errorText() const;
  // Its pictures are frames here.
  RecordingStatistics statistics() const;

 private:
  class Impl;
  template <typename Result, typename Work>
  Result guarded(const char* name, Result failed, Work work) noexcept;

  std::unique_ptr<Impl> impl_;
  bool noMemory_ = false;
};

}  // namespace tarn
