#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Console.h"
#include "media/record/RecordListener.h"
#include "media/record/SafetyWatch.h"

namespace tarn {

// What a recording tells, as the tool says it: what went wrong on standard error, how far it is
// where somebody wants to know, and to the service manager that pictures become safe.
class RecordOutput : public RecordListener {
 public:
  // `alone`: there is one input, and nobody needs to be told which. `progress`: say on standard
  // output how many pictures are written and safe.
  RecordOutput(bool alone, bool progress);

  bool stopAsked() override { return stopRequested(); }
  void told(uint8_t channel, const std::string& sentence) override;
  void progressed(const ChannelRecording& recording) override;
  void meanwhile(uint64_t safePictures) override;

  // What was recorded, once it is over.
  void report(const ChannelRecording& recording);

 private:
  struct Progress {
    uint64_t safe = 0;  // pictures, as last told
    uint64_t written = 0;
    int64_t toldUs = 0;
  };
  std::string label(uint8_t channel) const;
  void tellProgress(const ChannelRecording& recording);
  void showLine(const ChannelRecording& recording);
  void reportSound(const std::string& which, const RecordingStatistics& sound);

  const bool alone_;
  const bool progress_;
  std::mutex mutex_;
  std::map<uint8_t, Progress> progresses_;
  std::optional<ProgressLine> line_;
  int64_t lineUs_ = 0;
  const int64_t watchdogUs_;
  SafetyWatch safety_;
};

}  // namespace tarn
