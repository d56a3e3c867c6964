#include "media/archive/ClipRecorder.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "media/archive/SoundClip.h"
#include "recorder/session/RecordingSession.h"
#include "recorder/session/SoundSession.h"

namespace tarn {
namespace {

// A first guess of the room that it takes.
uint32_t bitrateOf(const ArchiveLine& line) {
  const int64_t ms = std::max<int64_t>(line.endMs - line.startMs, 1000);
  return static_cast<uint32_t>(
      std::min<uint64_t>(line.bytes * 8000 / static_cast<uint64_t>(ms), UINT32_MAX));
}

}  // namespace

bool ClipRecorder::fail(const std::string& text) {
  if (error_.empty()) error_ = text;
  return false;
}

bool ClipRecorder::failClip(const std::string& text) {
  ofClip_ = ofClip_ || error_.empty();
  return fail(text);
}

// Lines of early releases tell milliseconds.
PictureTime ClipRecorder::timeOf(int64_t us) const {
  return PictureTime::fromMicros((line_.firstUs != 0 ? line_.firstUs : line_.startMs * 1000) + us);
}

bool ClipRecorder::recordPictures() {
  std::string error;
  const std::unique_ptr<MediaInput> input = MediaInput::open(
      path_, 0, [this] { return stopAsked_ && stopAsked_(); }, &error);
  if (input == nullptr) return failClip(error);
  RecordingOptions options;
  options.channel = static_cast<int8_t>(line_.channel);
  options.inTrg = line_.kind == "recording" ? static_cast<uint16_t>(line_.trigger) : uint16_t{0};
  options.segmentSeconds = 0;
  options.bitrate = bitrateOf(line_);
  options.frameSet = static_cast<uint16_t>(std::clamp(std::lround(input->frameRate()), 0L, 127L));
  RecordingSession session;
  if (session.open(options) != 0) return fail(session.errorText());
  MediaPicture picture;
  MediaInput::Result result = MediaInput::Result::kEnd;
  int64_t firstUs = 0;
  for (bool begun = false; (result = input->next(&picture)) == MediaInput::Result::kPicture;
       begun = true) {
    if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
    if (!begun) firstUs = picture.presentationUs;
    if (session.writePicture(
            picture.annexB.data(), picture.annexB.size(), timeOf(picture.presentationUs - firstUs),
            static_cast<int32_t>(picture.decodeUs - picture.presentationUs), picture.key) != 0)
      return fail(session.errorText());
  }
  const uint64_t pictures = session.statistics().pictures;
  if (session.close() != 0) return fail(session.errorText());
  if (result == MediaInput::Result::kError) return failClip(input->error());
  return pictures == line_.pictures || failClip("it has " + std::to_string(pictures) +
                                                " pictures, of " + std::to_string(line_.pictures));
}

bool ClipRecorder::recordSound() {
  SoundClip clip;
  MediaSound frame;
  if (!clip.open(path_)) return failClip(clip.error());
  if (!clip.next(&frame)) return failClip(clip.error().empty() ? "it has no sound" : clip.error());
  SoundOptions options;
  options.format = clip.format();
  options.channel = static_cast<int8_t>(line_.channel);
  options.inTrg = static_cast<uint16_t>(line_.trigger);
  options.segmentSeconds = 0;
  options.bitrate = bitrateOf(line_);
  SoundSession session;
  if (session.open(options) != 0) return fail(session.errorText());
  do {
    if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
    if (clip.format() != options.format) return failClip("its sound changes its format");
    if (session.writeFrame(frame.frame.data(), frame.frame.size(), timeOf(frame.timeUs),
                           frame.samples) != 0)
      return fail(session.errorText());
  } while (clip.next(&frame));
  if (session.close() != 0) return fail(session.errorText());
  return clip.error().empty() || failClip(clip.error());
}

bool ClipRecorder::run() { return line_.media == "sound" ? recordSound() : recordPictures(); }

}  // namespace tarn
