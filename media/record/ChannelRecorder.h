#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "media/LivePictures.h"
#include "media/MediaInput.h"
#include "media/record/EarlyPictures.h"
#include "media/record/RecordListener.h"
#include "media/record/RecordRequest.h"
#include "media/record/RequestedEvents.h"
#include "recorder/session/ClockWatch.h"
#include "recorder/session/PictureClock.h"
#include "recorder/session/RecordingSession.h"
#include "recorder/session/SoundSession.h"

namespace tarn {

// Records one input on its channel. Used by one thread, its own, where nothing else is said.
class ChannelRecorder {
 public:
  // Request and listener outlive this; `input` is one of the request's inputs.
  ChannelRecorder(const RecordRequest& request, const InputRequest& input,
                  RecordListener* listener);

  // Until the input's end, a failure or a stop. False after a failure, which the listener was told.
  // Throws nothing.
  bool run() noexcept;
  // What was recorded so far.
  ChannelRecording recording() const;
  // Pictures that are safe by now, and those that came before the session was open; any thread.
  uint64_t safePictures() const { return safePictures_; }
  // Asks for an orderly end, as the listener may; any thread.
  void stop() {
    stopped_ = true;
    early_.stop();
  }

 private:
  bool fail(const std::string& text);
  void warn(const std::string& text) const { listener_->told(input_.channel, text); }
  bool stopAsked() const { return stopped_ || listener_->stopAsked(); }

  void record();
  std::unique_ptr<MediaInput> openInput(std::string* error);
  void prepare(MediaInput* input);
  bool recordPasses();
  bool recordAddress();
  bool recordInput(MediaInput* input);
  bool pauseFor(int64_t pauseUs);
  bool sessionIsOpen() const { return !early_.isOpening() && session_.isOpen(); }
  bool finishOpening(bool wait);
  void markDiscontinuity();
  uint64_t picturesSoFar() const;
  bool openSession(const MediaInput& input);
  bool recordPicture(const MediaPicture& picture);
  bool recordLive(MediaPicture picture);
  bool writeLive();
  bool write(const MediaPicture& picture, PictureTime presentation, int64_t atUs);
  void takeSound(MediaInput* input);
  bool openSound(const SoundFormat& format);
  void writeSound(const MediaSound& sound, const SoundFormat& format, PictureTime time);
  void writeLiveSound();
  void failSound(const char* text);
  void pace(int64_t decodeUs);
  bool isIdle();
  void watchClock();
  void endEvents();
  void tellProgress();
  PictureTime clockTime(int64_t timeUs) const {
    return PictureTime::fromMicros(start_.totalMicros() + timeUs);
  }

  const RecordRequest& request_;
  const InputRequest& input_;
  RecordListener* const listener_;
  RecordingSession session_;
  EarlyPictures early_;
  SoundSession soundSession_;
  SoundFormat soundFormat_;  // of its frames
  bool soundGood_ = true;
  bool hasSound_ = false;
  RequestedEvents events_{&session_};  // of the first input
  bool good_ = true;
  PictureTime start_;
  bool started_ = false;
  std::optional<PictureClock> clock_;  // of a live input
  std::optional<ClockWatch> clockWatch_;
  std::optional<LivePictures> live_;
  bool leftOutTold_ = false;
  int64_t firstDecodeUs_ = 0;  // of the present pass, may be negative
  int64_t originUs_ = 0;       // where on the recording's time line the present pass begins
  int64_t endUs_ = 0;          // end of the last picture so far
  int64_t beganUs_ = 0;        // monotonic
  int64_t lastIdleUs_ = 0;
  bool opened_ = false;
  std::atomic<uint64_t> safePictures_ = 0;
  std::atomic<bool> stopped_ = false;
};

}  // namespace tarn
