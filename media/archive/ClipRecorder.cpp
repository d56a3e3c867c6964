#include "media/archive/ClipRecorder.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "media/archive/SoundClip.h"
#include "recorder/session/RecordingSession.h"
#include "recorder/session/SoundSession.h"

namespace tarn {
namespace {

constexpr char kErrMore[] = "it has more in it than the archive says";
constexpr char kErrOtherTime[] = "it has something from another time than the archive says";

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
PictureTime ClipRecorder::timeOf(const ArchiveLine& line, int64_t us) {
  return PictureTime::fromMicros((line.firstUs != 0 ? line.firstUs : line.startMs * 1000) + us);
}

// Of a part a piece begins so long behind its first one. A clip goes on a little behind the end of
// what it is of, and an event's begins before it.
bool ClipRecorder::isInTime(int64_t us) const {
  constexpr int64_t kSpareMs = 3600000;
  const int64_t ms = line_.endMs - line_.startMs + int64_t{line_.preSeconds} * 1000 + kSpareMs;
  return us / 1000 >= -kSpareMs && us / 1000 <= ms;
}

// A movie of a few bytes can show the same ones for ever.
bool ClipRecorder::counts(const ArchiveLine& line, size_t bytes, uint64_t pieces, uint64_t most) {
  constexpr uint64_t kOfEach = 64;  // parameter sets, which a movie has once
  constexpr uint64_t kSpareBytes = uint64_t{64} * 1024;
  bytes_ += bytes;
  return pieces <= most && bytes_ <= line.bytes + line.pictures * kOfEach + kSpareBytes;
}

bool ClipRecorder::recordPictures(const Part& part, RecordingSession* session) {
  std::string error;
  const std::unique_ptr<MediaInput> input = MediaInput::open(
      part.path, 0, [this] { return stopAsked_ && stopAsked_(); }, &error);
  if (input == nullptr) return failClip(error);
  MediaPicture picture;
  MediaInput::Result result = MediaInput::Result::kEnd;
  int64_t firstUs = 0;
  uint64_t pictures = 0;
  bytes_ = 0;
  while ((result = input->next(&picture)) == MediaInput::Result::kPicture) {
    if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
    if (pictures++ == 0) firstUs = picture.presentationUs;
    const int64_t us = picture.presentationUs - firstUs;
    if (!counts(part.line, picture.annexB.size(), pictures, part.line.pictures))
      return failClip(kErrMore);
    if (!isInTime(us) || !isInTime(picture.decodeUs - firstUs)) return failClip(kErrOtherTime);
    if (session->writePicture(picture.annexB.data(), picture.annexB.size(), timeOf(part.line, us),
                              static_cast<int32_t>(picture.decodeUs - picture.presentationUs),
                              picture.key) != 0)
      return fail(session->errorText());
  }
  if (result == MediaInput::Result::kError) return failClip(input->error());
  return pictures == part.line.pictures ||
         failClip("it has " + std::to_string(pictures) + " pictures, of " +
                  std::to_string(part.line.pictures));
}

bool ClipRecorder::recordPictures() {
  std::string error;
  RecordingOptions options;
  options.channel = static_cast<int8_t>(line_.channel);
  options.inTrg = line_.kind == "recording" ? static_cast<uint16_t>(line_.trigger) : uint16_t{0};
  options.segmentSeconds = 0;
  options.bitrate = bitrateOf(line_);
  {
    const std::unique_ptr<MediaInput> input = MediaInput::open(
        parts_.front().path, 0, [] { return false; }, &error);
    if (input == nullptr) return failClip(error);
    options.frameSet = static_cast<uint16_t>(std::clamp(std::lround(input->frameRate()), 0L, 127L));
  }
  RecordingSession session;
  if (session.open(options) != 0) return fail(session.errorText());
  // The last part may have sound alone, which comes back by itself.
  for (const Part& part : parts_) {
    if (part.line.pictures == 0 && &part != &parts_.front()) continue;
    if (recordPictures(part, &session)) continue;
    if (ofClip_ && session.close() != 0) return fail(session.errorText());
    return false;
  }
  return session.close() == 0 || fail(session.errorText());
}

bool ClipRecorder::recordSound(const Part& part) {
  SoundClip clip;
  MediaSound frame;
  if (!clip.open(part.path)) return failClip(clip.error());
  if (!clip.next(&frame)) return failClip(clip.error().empty() ? "it has no sound" : clip.error());
  SoundOptions options;
  options.format = clip.format();
  options.channel = static_cast<int8_t>(line_.channel);
  options.inTrg = static_cast<uint16_t>(line_.trigger);
  options.segmentSeconds = 0;
  options.bitrate = bitrateOf(line_);
  SoundSession session;
  if (session.open(options) != 0) return fail(session.errorText());
  uint64_t frames = 0;
  bytes_ = 0;
  do {
    if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
    if (clip.format() != options.format) return failClip("its sound changes its format");
    // G.711 comes in other pieces than those that it was recorded in.
    if (!counts(part.line, frame.frame.size(), ++frames, part.line.bytes))
      return failClip(kErrMore);
    if (!isInTime(frame.timeUs)) return failClip(kErrOtherTime);
    if (session.writeFrame(frame.frame.data(), frame.frame.size(), timeOf(part.line, frame.timeUs),
                           frame.samples) != 0)
      return fail(session.errorText());
  } while (clip.next(&frame));
  if (session.close() != 0) return fail(session.errorText());
  return clip.error().empty() || failClip(clip.error());
}

bool ClipRecorder::run() {
  if (line_.media != "sound") return recordPictures();
  return std::all_of(parts_.begin(), parts_.end(),
                     [this](const Part& part) { return recordSound(part); });
}

}  // namespace tarn
