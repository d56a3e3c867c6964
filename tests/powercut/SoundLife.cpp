#include "powercut/SoundLife.h"

#include <algorithm>

#include "powercut/Checks.h"
#include "powercut/Script.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/session/SoundSession.h"

namespace powercut {
namespace {

// G.711 in frames of a tenth of a second, of which a flush interval holds two at the most.
constexpr uint32_t kSampleRate = 8000;
constexpr uint32_t kFrameSamples = kSampleRate / 10;
constexpr uint32_t kFrameMs = 100;

const tarn::SoundFormat& format() {
  static const tarn::SoundFormat alaw = {tarn::SoundCodec::kAlaw, 1, kSampleRate, {}};
  return alaw;
}

std::vector<uint8_t> frameBytes(uint32_t number) {
  std::vector<uint8_t> bytes(kFrameSamples);
  uint32_t state = number * 747796405u + 2891336453u;
  for (uint8_t& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

tarn::PictureTime frameTime(uint32_t number) {
  return tarn::PictureTime::fromMicros(pictureTime(0).totalMicros() +
                                       int64_t{number} * kFrameMs * 1000);
}

// A program's session of sound. Its blocks are made safe as they end, so a frame's row is known
// when it is safe.
class SoundRecorder {
 public:
  SoundRecorder(Recorded* out, int8_t channel) : out_(out), index_(out->sessions.size()) {
    tarn::SoundOptions options;
    options.format = format();
    options.channel = channel;
    options.segmentSeconds = 1;
    options.flushIntervalMs = flushPictures() * 1000 / kRate;
    out_->sessions.emplace_back();
    out_->channels.push_back(channel);
    out_->mostUnsafe[index_] = options.flushIntervalMs / kFrameMs;
    require(session_.open(options) == 0, session_.errorText());
  }

  void frame(uint32_t number) {
    const std::vector<uint8_t> bytes = frameBytes(number);
    require(session_.writeFrame(bytes.data(), bytes.size(), frameTime(number), kFrameSamples) == 0,
            session_.errorText());
    frames().push_back({number, 0});
    note();
  }
  void close() {
    const uint32_t row = session_.streamID();
    require(session_.close() == 0, session_.errorText());
    settle(row);
    note();
  }

 private:
  std::vector<Picture>& frames() { return out_->sessions[index_]; }
  void settle(uint32_t row) {
    for (; settled_ < session_.statistics().confirmed; ++settled_)
      frames()[settled_].streamID = row;
  }
  void note() {
    if (session_.streamID() != 0) settle(session_.streamID());
    const Trace* trace = Card::get().trace();
    if (trace == nullptr) return;
    const tarn::RecordingStatistics now = session_.statistics();
    out_->safe.push_back({trace->ops.size(), static_cast<int>(index_),
                          static_cast<uint32_t>(now.confirmed),
                          static_cast<uint32_t>(now.pictures)});
  }

  Recorded* out_;
  const size_t index_;
  size_t settled_ = 0;
  tarn::SoundSession session_;
};

// Pictures `from` to `to` - 1 with the sound of their time, and an event in the midst of them.
void recordBoth(Recorded* out, uint32_t from, uint32_t to) {
  Recorder recorder(out);
  const size_t session = recorder.open(0, 1);
  SoundRecorder sound(out, 0);
  const auto frameOf = [](uint32_t number) { return number * 1000 / kRate / kFrameMs; };
  uint32_t event = 0;
  uint32_t next = frameOf(from);
  for (uint32_t number = from; number < to; ++number) {
    recorder.picture(session, number);
    if (number == from + 5) event = recorder.beginEvent(session, 9, number);
    for (; next < frameOf(number + 1); ++next) sound.frame(next);
    if (number == from + 20) recorder.endEvent(session, event, number);
  }
  sound.close();
  recorder.close(session);
}

}  // namespace

void soundBesidePictures(Recorded* out) {
  formatCard();
  boot();
  const Server server;
  begin(out);
  recordBoth(out, 0, 90 + variant() * 3);
}

void soundRings(Recorded* out) {
  shape() = {65536, 2048, 4, 1024};
  formatCard();
  boot();
  const Server server;
  recordBoth(out, 0, 250);
  // Those are all safe.
  for (size_t i = 0; i < out->sessions.size(); ++i) {
    const auto all = static_cast<uint32_t>(out->sessions[i].size());
    out->safe.push_back({0, static_cast<int>(i), all, all});
  }
  begin(out);
  knowRows(out);
  recordBoth(out, 300, 380 + variant() * 2);
}

std::string checkFrames(const DB_STREAM& row, const std::vector<uint32_t>& expected,
                        uint32_t* count) {
  tarn::RecordingReader reader;
  *count = 0;
  if (reader.open(row) != 0) return "cannot be opened";
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    tarn::PictureEntry entry;
    tarn::SoundBlock block;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes) || reader.isDamaged() ||
        !block.decode(bytes.data(), bytes.size()) || block.format() != format())
      return "block " + std::to_string(i) + " cannot be read";
    for (const tarn::SoundFrame& frame : block.frames()) {
      if (*count >= expected.size()) return "more frames than were given";
      const uint32_t number = expected[(*count)++];
      if (!(frame.time == frameTime(number)) ||
          std::vector<uint8_t>(frame.data, frame.data + frame.size) != frameBytes(number))
        return "frame " + std::to_string(number) + " is not what was recorded";
    }
  }
  return "";
}

}  // namespace powercut
