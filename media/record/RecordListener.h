#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/session/RecordingStatistics.h"

namespace tarn {

// How far one channel is.
struct ChannelRecording {
  uint8_t channel = 0;
  bool begun = false;    // a session was opened for its pictures
  int64_t lengthUs = 0;  // from the first picture to the end of the last
  uint32_t events = 0;   // that were begun
  RecordingStatistics statistics;
  bool hasSound = false;      // a session was opened for its sound
  RecordingStatistics sound;  // whose pictures are frames
};

// Hears from a MediaRecorder how it goes, and tells it when to stop. Each channel calls from a
// thread of its own, several at once; recording waits for the answer, so it should come in
// milliseconds. No function may throw.
class TARN_API RecordListener {
 public:
  virtual ~RecordListener();

  // Whether to end in order. Asked by each channel a few times a second.
  virtual bool stopAsked() { return false; }
  // Something that a person should know of a channel: an input that does not answer, what is not
  // recorded, why the recording failed. One sentence, without a full stop.
  virtual void told(uint8_t channel, const std::string& sentence);
  // After each picture, a few times a second while pictures are waited for, and at the end.
  virtual void progressed(const ChannelRecording& recording);
  // From the thread of MediaRecorder::run(), ten times a second, with how many pictures of all
  // channels are safe on the card by now, those counted too that came while the recorder was still
  // starting: the place to feed a watchdog, see SafetyWatch.
  virtual void meanwhile(uint64_t safePictures);
};

}  // namespace tarn
