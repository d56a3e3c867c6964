#include "media/ContainerSound.h"

#include <algorithm>
#include <utility>

#include "base/Endian.h"
#include "media/MonotonicTime.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn {
namespace {

// Samples of G.711 in a frame at the most; any number of them is one.
constexpr uint32_t kMostSamples = 4096;
// Sound that comes long before the first picture is no part of the recording.
constexpr size_t kMostWaiting = 4096;
constexpr uint32_t kAacSamples = 1024;
constexpr uint32_t kOpusRate = 48000;

SoundCodec codecOf(AVCodecID id) {
  switch (id) {
    case AV_CODEC_ID_AAC:
      return SoundCodec::kAac;
    case AV_CODEC_ID_PCM_ALAW:
      return SoundCodec::kAlaw;
    case AV_CODEC_ID_PCM_MULAW:
      return SoundCodec::kMulaw;
    case AV_CODEC_ID_OPUS:
      return SoundCodec::kOpus;
    default:
      return SoundCodec::kUnknown;
  }
}

bool isG711(SoundCodec codec) { return codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw; }

// Length of a packet by its first bytes, as RFC 6716 has it (3.1); 0 of none.
uint32_t opusSamples(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static constexpr uint32_t kSilk[] = {480, 960, 1920, 2880};
  static constexpr uint32_t kCelt[] = {120, 240, 480, 960};
  const uint32_t config = data[0] >> 3;
  const uint32_t frame = config < 12   ? kSilk[config & 3]
                         : config < 16 ? ((config & 1) != 0 ? 960 : 480)
                                       : kCelt[config & 3];
  const uint32_t code = data[0] & 3;
  if (code == 0) return frame;
  if (code < 3) return 2 * frame;
  return size < 2 ? 0 : frame * (data[1] & 0x3Fu);
}

// RTP carries none. Nothing is skipped then, and the gain is as it is.
std::vector<uint8_t> opusHead(uint8_t channels) {
  std::vector<uint8_t> head = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1, channels,
                               0,   0,   0,   0,   0,   0,   0,   0,   0};
  putLe32(head.data() + 12, kOpusRate);
  return head;
}

SoundFormat formatOf(const AVCodecParameters& parameters) {
  SoundFormat format;
  format.codec = codecOf(parameters.codec_id);
  format.channels = static_cast<uint8_t>(std::clamp(parameters.ch_layout.nb_channels, 0, 255));
  format.sampleRate = static_cast<uint32_t>(std::max(parameters.sample_rate, 0));
  if (format.codec == SoundCodec::kOpus) format.sampleRate = kOpusRate;
  if (parameters.extradata_size > 0 && !isG711(format.codec))
    format.config.assign(parameters.extradata, parameters.extradata + parameters.extradata_size);
  if (format.codec == SoundCodec::kOpus && format.config.empty())
    format.config = opusHead(format.channels);
  return format;
}

}  // namespace

std::unique_ptr<ContainerSound> ContainerSound::choose(AVFormatContext* format,
                                                       const AVStream& video) {
  const int best = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, video.index, nullptr, 0);
  AVStream* chosen = nullptr;
  for (unsigned i = 0; i < format->nb_streams; ++i) {
    AVStream* stream = format->streams[i];
    const bool fits = stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO &&
                      codecOf(stream->codecpar->codec_id) != SoundCodec::kUnknown;
    if (fits && (chosen == nullptr || stream->index == best)) chosen = stream;
  }
  if (chosen == nullptr) return nullptr;
  auto sound = std::make_unique<ContainerSound>();
  sound->stream_ = chosen;
  if (!sound->prepare()) return nullptr;
  chosen->discard = AVDISCARD_DEFAULT;
  return sound;
}

// Frames of AAC that have headers are told by what is missing beside them.
bool ContainerSound::prepare() {
  packet_.reset(av_packet_alloc());
  format_ = formatOf(*stream_->codecpar);
  if (packet_ == nullptr || format_.channels == 0 || format_.sampleRate == 0 ||
      format_.config.size() > SoundFormat::kMostConfig)
    return false;
  if (format_.codec != SoundCodec::kAac || !format_.config.empty()) return true;
  const AVBitStreamFilter* definition = av_bsf_get_by_name("aac_adtstoasc");
  AVBSFContext* filter = nullptr;
  if (definition == nullptr || av_bsf_alloc(definition, &filter) < 0) return false;
  filter_.reset(filter);
  filter->time_base_in = stream_->time_base;
  return avcodec_parameters_copy(filter->par_in, stream_->codecpar) >= 0 &&
         av_bsf_init(filter) >= 0;
}

bool ContainerSound::add(AVPacket* packet) {
  const size_t before = waiting_.size();
  if (filter_ == nullptr) {
    take(*packet);
  } else if (av_bsf_send_packet(filter_.get(), packet) >= 0) {
    while (av_bsf_receive_packet(filter_.get(), packet_.get()) >= 0) {
      take(*packet_);
      av_packet_unref(packet_.get());
    }
  }
  return waiting_.size() > before;
}

namespace {

// How much of the frame's end is not meant to be heard, as some containers tell of the last one.
uint32_t paddingOf(const AVPacket& packet) {
  size_t size = 0;
  const uint8_t* skip = av_packet_get_side_data(&packet, AV_PKT_DATA_SKIP_SAMPLES, &size);
  return skip != nullptr && size >= 8 ? getLe32(skip + 4) : 0;
}

}  // namespace

// Others count in samples, and the last frame is shorter.
uint32_t ContainerSound::samplesOf(const AVPacket& packet) const {
  const auto size = static_cast<size_t>(packet.size);
  if (isG711(format_.codec)) return static_cast<uint32_t>(size / format_.channels);
  const AVRational base = stream_->time_base;
  const auto rate = static_cast<int64_t>(format_.sampleRate);
  const int known = stream_->codecpar->frame_size;
  const uint32_t whole = format_.codec == SoundCodec::kOpus ? opusSamples(packet.data, size)
                         : known > 0                        ? static_cast<uint32_t>(known)
                                                            : kAacSamples;
  const uint32_t padding = paddingOf(packet);
  if (base.num != 1 || base.den != rate || packet.duration <= 0)
    return padding < whole ? whole - padding : whole;
  return static_cast<uint32_t>(std::min<int64_t>(packet.duration, kSoundFrameLimit - 1));
}

void ContainerSound::take(const AVPacket& packet) {
  size_t size = 0;
  const uint8_t* config = av_packet_get_side_data(&packet, AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (config != nullptr && size <= SoundFormat::kMostConfig && !isG711(format_.codec))
    format_.config.assign(config, config + size);
  const int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
  const int64_t timeUs = stamp != AV_NOPTS_VALUE ? inputUs(stamp, stream_->time_base) : endUs_;
  const uint32_t samples = samplesOf(packet);
  const auto bytes = static_cast<size_t>(packet.size);
  if (!isG711(format_.codec)) return push(packet.data, bytes, samples, timeUs);
  for (uint32_t done = 0; done < samples; done += kMostSamples) {
    const uint32_t piece = std::min(samples - done, kMostSamples);
    push(packet.data + size_t{done} * format_.channels, size_t{piece} * format_.channels, piece,
         timeUs + int64_t{done} * 1000000 / format_.sampleRate);
  }
}

// What no block can hold is no frame of these codecs.
void ContainerSound::push(const uint8_t* data, size_t size, uint32_t samples, int64_t timeUs) {
  endUs_ = boundedUs(timeUs + int64_t{samples} * 1000000 / format_.sampleRate);
  if (size == 0 || size >= kSoundFrameLimit || samples == 0) return;
  if (waiting_.size() >= kMostWaiting) waiting_.pop_front();
  Waiting waiting;
  waiting.sound.frame.assign(data, data + size);
  waiting.sound.timeUs = timeUs;
  waiting.sound.samples = samples;
  waiting.sound.arrivalUs = monotonicUs();
  waiting.format = format_;
  waiting_.push_back(std::move(waiting));
}

bool ContainerSound::next(int64_t originUs, MediaSound* out, SoundFormat* format) {
  if (waiting_.empty()) return false;
  *out = std::move(waiting_.front().sound);
  *format = std::move(waiting_.front().format);
  waiting_.pop_front();
  out->timeUs -= originUs;
  return true;
}

}  // namespace tarn
