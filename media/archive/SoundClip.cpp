#include "media/archive/SoundClip.h"

#include <utility>

namespace tarn {

bool SoundClip::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool SoundClip::open(const std::string& path) {
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0)
    return fail("it is no movie");
  format_.reset(context);
  packet_.reset(av_packet_alloc());
  if (packet_ == nullptr) return fail("out of memory");
  if (avformat_find_stream_info(context, nullptr) < 0 || context->nb_streams == 0)
    return fail("it is a movie without tracks");
  sound_ = ContainerSound::choose(context, *context->streams[0]);
  return sound_ != nullptr || fail("it has no sound that can be recorded");
}

bool SoundClip::read(MediaSound* sound) {
  while (!sound_->next(0, sound, &soundFormat_)) {
    const int got = av_read_frame(format_.get(), packet_.get());
    if (got == AVERROR_EOF) return false;
    if (got < 0) return fail("it cannot be read to its end");
    if (sound_->isOf(*packet_)) sound_->add(packet_.get());
    av_packet_unref(packet_.get());
  }
  if (!begun_) firstUs_ = sound->timeUs;
  begun_ = true;
  return true;
}

// The last frame is heard until the clip ends, which its own entry does not say when it is read.
void SoundClip::shorten(MediaSound* last) const {
  const AVStream& stream = *sound_->stream();
  if (stream.duration <= 0) return;
  const int64_t start = stream.start_time == AV_NOPTS_VALUE ? 0 : stream.start_time;
  const int64_t endUs = av_rescale_q(start + stream.duration, stream.time_base, kMicroseconds);
  const int64_t leftUs = endUs - last->timeUs;
  const int64_t samples = (leftUs * soundFormat_.sampleRate + 500000) / 1000000;
  if (samples > 0 && samples < last->samples) last->samples = static_cast<uint32_t>(samples);
}

bool SoundClip::next(MediaSound* sound) {
  if (!waiting_ && !ended_) waiting_ = read(&next_);
  if (!waiting_) return false;
  *sound = std::move(next_);
  waiting_ = read(&next_);
  if (!error_.empty()) return false;
  ended_ = !waiting_;
  if (ended_) shorten(sound);
  sound->timeUs -= firstUs_;
  return true;
}

}  // namespace tarn
