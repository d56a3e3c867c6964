#include "media/ContainerInput.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <new>

#include "base/UniqueFd.h"
#include "media/MonotonicTime.h"
#include "media/StreamInput.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

// A camera that has sent nothing for so long is gone.
constexpr char kSilenceUs[] = "10000000";

}  // namespace

int ContainerInput::interrupted(void* self) {
  return static_cast<ContainerInput*>(self)->stopAsked_() ? 1 : 0;
}

int ContainerInput::readBytes(void* self, uint8_t* out, int size) {
  const ssize_t got =
      static_cast<ContainerInput*>(self)->bytes_->read(out, static_cast<size_t>(size));
  if (got > 0) return static_cast<int>(got);
  return got == 0 ? AVERROR_EOF : AVERROR(errno);
}

// What libavformat knows by a name of its own is said apart.
static std::string withoutTransport(std::string url) {
  constexpr char kPlus[] = "+udp";
  return MediaInput::isOverUdp(url) ? url.erase(url.find(kPlus), sizeof kPlus - 1) : url;
}

bool ContainerInput::openFormat(const std::string& url, const std::string& name,
                                std::string* error) {
  av_log_set_level(AV_LOG_FATAL);
  AVFormatContext* raw = avformat_alloc_context();
  if (raw == nullptr) throw std::bad_alloc();
  raw->interrupt_callback = {interrupted, this};
  if (bytes_ != nullptr) {
    constexpr int kBuffer = 32768;
    auto* buffer = static_cast<uint8_t*>(av_malloc(kBuffer));
    io_.reset(avio_alloc_context(buffer, kBuffer, 0, this, readBytes, nullptr, nullptr));
    raw->pb = io_.get();
    raw->flags |= AVFMT_FLAG_CUSTOM_IO;
  }
  AVDictionary* options = nullptr;
  if (isAddress(url)) {
    av_dict_set(&options, "rtsp_transport", isOverUdp(url) ? "udp" : "tcp", 0);
    av_dict_set(&options, "timeout", kSilenceUs, 0);
  }
  // On failure the context is freed, too.
  const int result = avformat_open_input(&raw, withoutTransport(url).c_str(), nullptr, &options);
  av_dict_free(&options);
  if (result < 0) {
    *error = "cannot open " + name + ": " + avErrorText(result);
    return false;
  }
  format_.reset(raw);
  return chooseVideo(name, error);
}

bool ContainerInput::chooseVideo(const std::string& name, std::string* error) {
  AVFormatContext* format = format_.get();
  const int result = avformat_find_stream_info(format, nullptr);
  const int index = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (result < 0 || index < 0) {
    *error = name + " has no video that can be read";
    return false;
  }
  stream_ = format->streams[index];
  const AVCodecID codec = stream_->codecpar->codec_id;
  if (codec == AV_CODEC_ID_H264) return true;
  *error = name + ": its video is " + avcodec_get_name(codec) + ", not H.264";
  return false;
}

std::string ContainerInput::soundLeftOutText(const AVStream& stream) {
  return std::string("its sound (") + avcodec_get_name(stream.codecpar->codec_id) +
         ") is not recorded";
}

// What would be missed only when it is looked for.
void ContainerInput::noteLeftOut() {
  for (unsigned i = 0; i < format_->nb_streams; ++i) {
    AVStream* other = format_->streams[i];
    if (other == stream_) continue;
    other->discard = AVDISCARD_ALL;
    const std::string codec = avcodec_get_name(other->codecpar->codec_id);
    if (other->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
      leftOut_.push_back(soundLeftOutText(*other));
    else if (other->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
      leftOut_.push_back("its other video (" + codec + ") is not recorded");
    else if (other->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE)
      leftOut_.push_back("its subtitles (" + codec + ") are not recorded");
  }
  const uint8_t* matrix = av_stream_get_side_data(stream_, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
  if (matrix == nullptr) return;
  const auto* m = reinterpret_cast<const int32_t*>(matrix);
  // A determinant below 0 is that of a mirror.
  if (int64_t{m[0]} * m[4] < int64_t{m[1]} * m[3])
    leftOut_.push_back("its mirroring is not recorded");
  const double angle = av_display_rotation_get(m);
  const long degrees = std::isnan(angle) ? 0 : std::lround(angle);
  if (degrees != 0)
    leftOut_.push_back("its rotation by " + std::to_string(degrees) + " degrees is not recorded");
}

bool ContainerInput::begin(double frameRate, std::string* error) {
  const AVRational rate = av_guess_frame_rate(format_.get(), stream_, nullptr);
  frameRate_ = rate.num > 0 ? av_q2d(rate) : frameRate;
  bitRate_ = std::max(stream_->codecpar->bit_rate, int64_t{0});
  hasTimes_ = true;
  noteLeftOut();
  return openFilter(error) == 0;
}

std::unique_ptr<MediaInput> ContainerInput::open(const std::string& path, double frameRate,
                                                 StopAsked stopAsked, std::string* error) {
  auto input = std::make_unique<ContainerInput>();
  input->stopAsked_ = stopAsked;
  input->live_ = isAddress(path);
  // Any other name is taken as a file, never as an address.
  if (!input->openFormat(input->live_ ? path : "file:" + path, path, error)) return nullptr;
  if (std::string(input->format_->iformat->name) == "h264") {
    // A bare byte stream has no times; they are worked out from the order of its pictures.
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
      *error = "cannot open " + path;
      return nullptr;
    }
    return StreamInput::open(std::make_unique<InputBytes>(std::move(file), std::move(stopAsked)),
                             frameRate, error);
  }
  if (!input->begin(frameRate, error)) return nullptr;
  return input;
}

std::unique_ptr<MediaInput> ContainerInput::open(std::unique_ptr<InputBytes> bytes,
                                                 double frameRate, StopAsked stopAsked,
                                                 std::string* error) {
  auto input = std::make_unique<ContainerInput>();
  input->stopAsked_ = std::move(stopAsked);
  input->live_ = bytes->isLive();
  input->bytes_ = std::move(bytes);
  if (!input->openFormat("", "standard input", error) || !input->begin(frameRate, error))
    return nullptr;
  return input;
}

int ContainerInput::openFilter(std::string* error) {
  packet_.reset(av_packet_alloc());
  const AVBitStreamFilter* definition = av_bsf_get_by_name("h264_mp4toannexb");
  AVBSFContext* filter = nullptr;
  if (packet_ == nullptr || definition == nullptr || av_bsf_alloc(definition, &filter) < 0) {
    *error = "libavcodec lacks the filter h264_mp4toannexb";
    return -1;
  }
  filter_.reset(filter);
  filter_->time_base_in = stream_->time_base;
  if (avcodec_parameters_copy(filter_->par_in, stream_->codecpar) < 0 ||
      av_bsf_init(filter_.get()) < 0) {
    *error = "the video's parameters cannot be used";
    return -1;
  }
  return 0;
}

int ContainerInput::nextPacket() {
  for (;;) {
    int result = av_bsf_receive_packet(filter_.get(), packet_.get());
    if (result != AVERROR(EAGAIN)) return result;
    do {
      av_packet_unref(packet_.get());
      result = draining_ ? AVERROR_EOF : av_read_frame(format_.get(), packet_.get());
      if (result == 0 && takesSound()) return kSoundCame;
    } while (result == 0 && packet_->stream_index != stream_->index);
    if (result < 0 && result != AVERROR_EOF) return result;
    draining_ = result == AVERROR_EOF;
    result = av_bsf_send_packet(filter_.get(), draining_ ? nullptr : packet_.get());
    if (result < 0) return result;
  }
}

void ContainerInput::addPacket() {
  const AVPacket& packet = *packet_;
  const AVRational base = stream_->time_base;
  const int64_t frameUs = static_cast<int64_t>(1e6 / (frameRate_ > 0 ? frameRate_ : 25));
  MediaPicture picture;
  picture.annexB.assign(packet.data, packet.data + packet.size);
  picture.arrivalUs = monotonicUs();
  picture.key = isKeyPicture(picture.annexB.data(), picture.annexB.size());
  preamble_.complete(&picture.annexB, picture.key);
  picture.durationUs = packet.duration > 0 ? inputUs(packet.duration, base) : frameUs;
  const int64_t stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
  const int64_t next = count_ == 0 ? 0 : lastPresentationUs_ + picture.durationUs;
  const int64_t presentation =
      stamp != AV_NOPTS_VALUE ? inputUs(stamp, base) : boundedUs(originUs_ + next);
  // Cameras may tell no time of their first pictures: these were where the first that is told says.
  if (!started_ && stamp != AV_NOPTS_VALUE) {
    originUs_ = presentation - next;
    started_ = true;
  }
  ++count_;
  picture.presentationUs = presentation - originUs_;
  lastPresentationUs_ = picture.presentationUs;
  lengthUs_ = std::max(lengthUs_, picture.presentationUs + picture.durationUs);
  if (packet.dts != AV_NOPTS_VALUE) {
    picture.decodeUs = std::min(inputUs(packet.dts, base) - originUs_, picture.presentationUs);
    if (!decodeTimesKnown_) backfillDecodeTimes(picture.decodeUs);
  } else if (decodeTimesKnown_) {
    picture.decodeUs = picture.presentationUs;
  }
  waiting_.push_back(std::move(picture));
}

void ContainerInput::backfillDecodeTimes(int64_t nextDecodeUs) {
  decodeTimesKnown_ = true;
  for (auto picture = waiting_.rbegin(); picture != waiting_.rend(); ++picture) {
    nextDecodeUs = boundedUs(std::min(nextDecodeUs - picture->durationUs, picture->presentationUs));
    picture->decodeUs = nextDecodeUs;
  }
}

bool ContainerInput::firstIsTimed() const {
  constexpr size_t kMostReordered = 16;
  return !waiting_.empty() && (decodeTimesKnown_ || ended_ || waiting_.size() > kMostReordered);
}

int ContainerInput::readMore() {
  const int result = nextPacket();
  if (result == AVERROR_EOF) {
    ended_ = true;
  } else if (result == 0) {
    addPacket();
    av_packet_unref(packet_.get());
  }
  return result;
}

// True when the packet was one of the sound, and gave frames.
bool ContainerInput::takesSound() {
  return containerSound_ != nullptr && containerSound_->isOf(*packet_) &&
         containerSound_->add(packet_.get());
}

bool ContainerInput::wantSound() {
  if (!hasTimes_ || containerSound_ != nullptr) return false;
  containerSound_ = ContainerSound::choose(format_.get(), *stream_);
  if (containerSound_ == nullptr) return false;
  leftOut_.erase(
      std::remove(leftOut_.begin(), leftOut_.end(), soundLeftOutText(*containerSound_->stream())),
      leftOut_.end());
  return true;
}

// Sound waits for the first picture, which says where its time line begins.
MediaInput::Result ContainerInput::next(MediaPicture* out) {
  for (;;) {
    if (given_ && containerSound_ != nullptr &&
        containerSound_->next(originUs_, &sound_, &soundFormat_))
      return Result::kSound;
    if (firstIsTimed()) break;
    if (ended_) return Result::kEnd;
    const int result = readMore();
    if (result < 0 && result != AVERROR_EOF) {
      error_ = "reading the video failed: " + avErrorText(result);
      return Result::kError;
    }
  }
  if (!decodeTimesKnown_) backfillDecodeTimes(waiting_.front().presentationUs);
  *out = std::move(waiting_.front());
  waiting_.pop_front();
  given_ = true;
  return Result::kPicture;
}

}  // namespace tarn
