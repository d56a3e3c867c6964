#include "media/MovieMuxer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "media/PictureFormat.h"

namespace tarn {
namespace {

// Of silence, written at once.
constexpr int64_t kMostSilence = 4096;
// Sound that begins no more than this before the pictures belongs to the first of them: decoders
// need some frames to swing in. The file begins with the pictures then.
constexpr int64_t kLeadUs = 150000;
constexpr int kAacSamples = 1024;
constexpr int kOpusSamples = 960;

bool isG711(SoundCodec codec) { return codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw; }

AVCodecID idOf(SoundCodec codec) {
  switch (codec) {
    case SoundCodec::kAac:
      return AV_CODEC_ID_AAC;
    case SoundCodec::kAlaw:
      return AV_CODEC_ID_PCM_ALAW;
    case SoundCodec::kMulaw:
      return AV_CODEC_ID_PCM_MULAW;
    case SoundCodec::kOpus:
      return AV_CODEC_ID_OPUS;
    case SoundCodec::kUnknown:
      break;
  }
  return AV_CODEC_ID_NONE;
}

}  // namespace

bool MovieMuxer::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool MovieMuxer::failWith(const char* what, int code) {
  return fail(std::string("cannot ") + what + " " + name_ + ": " + avErrorText(code));
}

bool MovieMuxer::allocate() {
  AVFormatContext* raw = nullptr;
  const int result = avformat_alloc_output_context2(&raw, nullptr, kind_.c_str(), nullptr);
  if (result < 0) return failWith("create", result);
  muxer_.reset(raw);
  return true;
}

bool MovieMuxer::create(const char* kind, const std::string& name, size_t tracks) {
  kind_ = kind;
  name_ = name;
  tracks_.resize(tracks);
  quickTime_ = kind_ == "mov";
  packet_.reset(av_packet_alloc());
  return packet_ != nullptr ? allocate() : fail("out of memory");
}

bool MovieMuxer::renew() {
  const std::unique_ptr<AVFormatContext, MuxerDeleter> old = std::move(muxer_);
  if (!allocate()) return false;
  for (unsigned i = 0; i < old->nb_streams; ++i) {
    AVStream* stream = avformat_new_stream(muxer_.get(), nullptr);
    if (stream == nullptr ||
        avcodec_parameters_copy(stream->codecpar, old->streams[i]->codecpar) < 0)
      return fail("out of memory");
    stream->time_base = old->streams[i]->time_base;
    for (Track& track : tracks_) {
      if (track.stream == old->streams[i]) track.stream = stream;
    }
  }
  return true;
}

bool MovieMuxer::addTrack(Track* track, PictureTime first, int32_t decodeOffsetUs) {
  track->stream = avformat_new_stream(muxer_.get(), nullptr);
  track->first = first;
  track->firstDecodeUs = first.totalMicros() + std::min(decodeOffsetUs, 0);
  return track->stream != nullptr || fail("out of memory");
}

bool MovieMuxer::describe(size_t track, const OutputPicture& first) {
  Track& t = tracks_[track];
  if (!addTrack(&t, first.presentation, first.decodeOffsetUs) ||
      !describe(t.stream->codecpar, first))
    return false;
  // Microseconds, so that a picture's time survives to the last digit.
  t.stream->time_base = kMicroseconds;
  return true;
}

// Size of the picture and parameter sets, which the muxer wants before the first picture.
bool MovieMuxer::describe(AVCodecParameters* parameters, const OutputPicture& first) {
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = AV_CODEC_ID_H264;
  const ParameterSets sets = parameterSetsOf(first.annexB);
  if (sets.sequence.empty() || sets.picture.empty())
    return fail("the first picture carries no parameter sets; it cannot be decoded on its own");
  const PictureSize size = pictureSizeOf(first.annexB);
  parameters->width = static_cast<int>(size.width);
  parameters->height = static_cast<int>(size.height);
  std::vector<uint8_t> all(sets.sequence);
  all.insert(all.end(), sets.picture.begin(), sets.picture.end());
  return setExtradata(parameters, all);
}

bool MovieMuxer::setExtradata(AVCodecParameters* parameters, const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return true;
  auto* data = static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (data == nullptr) return fail("out of memory");
  memcpy(data, bytes.data(), bytes.size());
  parameters->extradata = data;
  parameters->extradata_size = static_cast<int>(bytes.size());
  return true;
}

bool MovieMuxer::holds(SoundCodec codec) const {
  return codec == SoundCodec::kAac || (quickTime_ ? isG711(codec) : codec == SoundCodec::kOpus);
}

bool MovieMuxer::describe(size_t track, const OutputSound& first) {
  const SoundFormat& format = first.format;
  if (!holds(format.codec))
    return fail(std::string(soundCodecText(format.codec)) + " sound does not go into " +
                (quickTime_ ? "a .mov: name the file .mp4" : "an .mp4: name the file .mov") +
                ", or leave the sound out with --no-sound");
  Track& t = tracks_[track];
  if (!addTrack(&t, first.time, 0)) return false;
  t.sound = format;
  AVCodecParameters* parameters = t.stream->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_AUDIO;
  parameters->codec_id = idOf(format.codec);
  parameters->sample_rate = static_cast<int>(format.sampleRate);
  av_channel_layout_default(&parameters->ch_layout, format.channels);
  if (isG711(format.codec)) {
    parameters->bits_per_coded_sample = 8;
    parameters->block_align = format.channels;
  } else {
    parameters->frame_size = format.codec == SoundCodec::kOpus ? kOpusSamples : kAacSamples;
  }
  t.stream->time_base = {1, parameters->sample_rate};
  return setExtradata(parameters, format.config);
}

// The packet has its times; the muxer only reads the data.
bool MovieMuxer::lend(const uint8_t* data, size_t size) {
  packet_->data = const_cast<uint8_t*>(data);
  packet_->size = static_cast<int>(size);
  const bool good = put(packet_.get());
  av_packet_unref(packet_.get());
  return good;
}

bool MovieMuxer::write(const OutputPicture& picture, size_t track) {
  Track& t = tracks_[track];
  if (t.stream == nullptr && !describe(track, picture)) return false;
  if (!begun_ && !begin()) return false;
  packet_->stream_index = t.stream->index;
  packet_->flags = picture.key ? AV_PKT_FLAG_KEY : 0;
  const int64_t pts = picture.presentation.totalMicros() - originUs_;
  // Decode times must rise; a clock that was set back makes them collide.
  int64_t dts = std::min(pts, pts + picture.decodeOffsetUs);
  if (t.started) dts = std::max(dts, t.lastDts + 1);
  packet_->dts = av_rescale_q(dts, kMicroseconds, t.stream->time_base);
  packet_->pts = av_rescale_q(std::max(pts, dts), kMicroseconds, t.stream->time_base);
  // The file ends when its last picture does, which is shown as long as the one before.
  packet_->duration = t.started ? dts - t.lastDts : 0;
  t.lastDts = dts;
  t.started = true;
  return lend(picture.annexB.data(), picture.annexB.size());
}

// Where the frame goes, in samples. Its own time tells, but the samples of sound that has no gap
// follow each other: clocks that differ are made even when they are half a frame apart.
int64_t MovieMuxer::placeOf(const Track& track, const OutputSound& sound) const {
  const int64_t at = av_rescale_rnd(sound.time.totalMicros() - originUs_, track.sound.sampleRate,
                                    1000000, AV_ROUND_NEAR_INF);
  if (!track.started) return at;
  if (std::llabs(at - track.next) <= sound.samples / 2) return track.next;
  return std::max(at, track.lastDts + 1);
}

bool MovieMuxer::writeFrame(Track* track, const uint8_t* data, size_t size, int64_t at,
                            uint32_t samples) {
  const AVRational base = {1, static_cast<int>(track->sound.sampleRate)};
  packet_->stream_index = track->stream->index;
  packet_->flags = AV_PKT_FLAG_KEY;
  packet_->dts = packet_->pts = av_rescale_q(at, base, track->stream->time_base);
  packet_->duration = av_rescale_q(samples, base, track->stream->time_base);
  track->started = true;
  track->lastDts = at;
  track->next = at + samples;
  return lend(data, size);
}

bool MovieMuxer::writeSilence(Track* track, int64_t samples) {
  const uint8_t silent = track->sound.codec == SoundCodec::kAlaw ? 0xD5 : 0xFF;
  const size_t channels = track->sound.channels;
  std::vector<uint8_t> silence(static_cast<size_t>(std::min(samples, kMostSilence)) * channels,
                               silent);
  while (samples > 0) {
    const auto piece = static_cast<uint32_t>(std::min(samples, kMostSilence));
    if (!writeFrame(track, silence.data(), piece * channels, track->next, piece)) return false;
    samples -= piece;
  }
  return true;
}

bool MovieMuxer::write(const OutputSound& sound, size_t track) {
  Track& t = tracks_[track];
  if (sound.format != t.sound) return fail("the sound changes its format, which no track can");
  if (!begun_ && !begin()) return false;
  const int64_t at = placeOf(t, sound);
  if (!isG711(t.sound.codec) || !t.started)
    return writeFrame(&t, sound.frame.data(), sound.frame.size(), at, sound.samples);
  if (at > t.next && fillsGaps() && !writeSilence(&t, at - t.next)) return false;
  if (at >= t.next)
    return writeFrame(&t, sound.frame.data(), sound.frame.size(), at, sound.samples);
  // What there is already of that time, where the clock was corrected.
  const int64_t over = t.next - at;
  if (over >= int64_t{sound.samples}) return true;
  const auto from = static_cast<size_t>(over) * t.sound.channels;
  return writeFrame(&t, sound.frame.data() + from, sound.frame.size() - from, t.next,
                    sound.samples - static_cast<uint32_t>(over));
}

const PictureTime* MovieMuxer::earliest(bool sound) const {
  const PictureTime* first = nullptr;
  for (const Track& track : tracks_) {
    if (track.stream == nullptr || track.isSound() != sound) continue;
    if (first == nullptr || track.first < *first) first = &track.first;
  }
  return first;
}

int64_t MovieMuxer::earliestDecodeUs() const {
  int64_t first = INT64_MAX;
  for (const Track& track : tracks_) {
    if (track.stream != nullptr) first = std::min(first, track.firstDecodeUs);
  }
  return first;
}

int64_t MovieMuxer::firstShownUs() const {
  const PictureTime* picture = earliest(false);
  const PictureTime* sound = earliest(true);
  const bool lead = picture == nullptr ||
                    (sound != nullptr && sound->totalMicros() < picture->totalMicros() - kLeadUs);
  const PictureTime* first = lead ? sound : picture;
  return first != nullptr ? first->totalMicros() : 0;
}

bool MovieMuxer::isSound(size_t stream) const {
  return std::any_of(tracks_.begin(), tracks_.end(), [&](const Track& track) {
    return track.stream != nullptr && static_cast<size_t>(track.stream->index) == stream &&
           track.isSound();
  });
}

bool MovieMuxer::writeHeader(int64_t originUs, AVDictionary* options) {
  originUs_ = originUs;
  av_dict_set(&options, "video_track_timescale", "1000000", AV_DICT_DONT_OVERWRITE);
  setDate(originUs);
  const int result = avformat_write_header(muxer_.get(), &options);
  av_dict_free(&options);
  begun_ = result >= 0;
  return begun_ || failWith("begin", result);
}

// The file's own clock counts whole seconds; the date has the rest.
void MovieMuxer::setDate(int64_t originUs) {
  char text[64];
  const PictureTime time = PictureTime::fromMicros(originUs);
  const auto seconds = static_cast<time_t>(time.seconds);
  tm utc{};
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc));
  snprintf(text + length, sizeof text - length, ".%06uZ", static_cast<unsigned>(time.micros));
  av_dict_set(&muxer_->metadata, "creation_time", text, 0);
  av_dict_set(&muxer_->metadata, "date", text, 0);
}

}  // namespace tarn
