#include "media/ContainerInput.h"

#include <fcntl.h>

#include <algorithm>

#include "base/UniqueFd.h"
#include "media/StreamInput.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {

std::unique_ptr<MediaInput> ContainerInput::open(const std::string& path, double frameRate,
                                                 StopAsked stopAsked, std::string* error) {
  av_log_set_level(AV_LOG_FATAL);
  AVFormatContext* raw = nullptr;
  // The name is taken as a file, never as an address.
  int result = avformat_open_input(&raw, ("file:" + path).c_str(), nullptr, nullptr);
  if (result < 0) {
    *error = "cannot open " + path + ": " + avErrorText(result);
    return nullptr;
  }
  auto input = std::make_unique<ContainerInput>();
  input->format_.reset(raw);
  result = avformat_find_stream_info(raw, nullptr);
  const int index = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (result < 0 || index < 0) {
    *error = path + " has no video that can be read";
    return nullptr;
  }
  input->stream_ = raw->streams[index];
  if (input->stream_->codecpar->codec_id != AV_CODEC_ID_H264) {
    *error = path + ": its video is " + avcodec_get_name(input->stream_->codecpar->codec_id) +
             ", not H.264";
    return nullptr;
  }
  const AVRational rate = av_guess_frame_rate(raw, input->stream_, nullptr);
  if (std::string(raw->iformat->name) == "h264") {
    // A bare byte stream has no times; they are worked out from the order of its pictures.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
      *error = "cannot open " + path;
      return nullptr;
    }
    return StreamInput::open(::dup(file.get()), frameRate, stopAsked, error);
  }
  input->frameRate_ = rate.num > 0 ? av_q2d(rate) : frameRate;
  input->bitRate_ = std::max(input->stream_->codecpar->bit_rate, int64_t{0});
  if (input->openFilter(error) != 0) return nullptr;
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
  picture.key = isKeyPicture(picture.annexB.data(), picture.annexB.size());
  preamble_.complete(&picture.annexB, picture.key);
  int64_t presentation = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
  presentation = presentation != AV_NOPTS_VALUE ? av_rescale_q(presentation, base, kMicroseconds)
                                                : originUs_ + lastPresentationUs_ + frameUs;
  if (!started_) originUs_ = presentation;
  started_ = true;
  picture.presentationUs = presentation - originUs_;
  picture.durationUs =
      packet.duration > 0 ? av_rescale_q(packet.duration, base, kMicroseconds) : frameUs;
  lastPresentationUs_ = picture.presentationUs;
  lengthUs_ = std::max(lengthUs_, picture.presentationUs + picture.durationUs);
  if (packet.dts != AV_NOPTS_VALUE) {
    picture.decodeUs =
        std::min(av_rescale_q(packet.dts, base, kMicroseconds) - originUs_, picture.presentationUs);
    if (!decodeTimesKnown_) backfillDecodeTimes(picture.decodeUs);
  } else if (decodeTimesKnown_) {
    picture.decodeUs = picture.presentationUs;
  }
  waiting_.push_back(std::move(picture));
}

void ContainerInput::backfillDecodeTimes(int64_t nextDecodeUs) {
  decodeTimesKnown_ = true;
  for (auto picture = waiting_.rbegin(); picture != waiting_.rend(); ++picture) {
    nextDecodeUs = std::min(nextDecodeUs - picture->durationUs, picture->presentationUs);
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

MediaInput::Result ContainerInput::next(MediaPicture* out) {
  while (!firstIsTimed()) {
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
  return Result::kPicture;
}

}  // namespace tarn
