#include "media/serve/Thumbnails.h"

#include <algorithm>
#include <cstring>

#include "media/Av.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace tarn {
namespace {

struct FrameDeleter {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;

constexpr int kQuality = 5;        // of 2 (best) to 31
constexpr int kMostPixels = 8192;  // a side
constexpr int kLeastPixels = 16;

// How a picture lies in memory, where it is brightness with two colours or without them, each in a
// plane of its own, as all pictures of H.264 are but those of red, green and blue. Null: otherwise.
const AVPixFmtDescriptor* planesOf(const AVFrame& frame) {
  constexpr uint64_t kOther = AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL |
                              AV_PIX_FMT_FLAG_BE | AV_PIX_FMT_FLAG_ALPHA;
  const AVPixFmtDescriptor* form = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
  if (form == nullptr || (form->flags & kOther) != 0 || form->comp[0].depth > 16) return nullptr;
  const bool planar = form->nb_components == 1 ||
                      (form->nb_components == 3 && (form->flags & AV_PIX_FMT_FLAG_PLANAR) != 0);
  return planar ? form : nullptr;
}

// The one picture of a decoder that is given nothing else.
Frame decode(const std::vector<uint8_t>& annexB) {
  AvOwned<AVCodecContext> codec(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264)));
  AvOwned<AVPacket> packet(av_packet_alloc());
  Frame frame(av_frame_alloc());
  if (codec == nullptr || packet == nullptr || frame == nullptr || annexB.empty()) return nullptr;
  codec->thread_count = 1;
  if (avcodec_open2(codec.get(), nullptr, nullptr) < 0 ||
      av_new_packet(packet.get(), static_cast<int>(annexB.size())) < 0)
    return nullptr;
  memcpy(packet->data, annexB.data(), annexB.size());
  packet->flags = AV_PKT_FLAG_KEY;
  const bool good = avcodec_send_packet(codec.get(), packet.get()) >= 0 &&
                    avcodec_send_packet(codec.get(), nullptr) >= 0 &&
                    avcodec_receive_frame(codec.get(), frame.get()) >= 0;
  const bool bounded = frame->width >= kLeastPixels && frame->width <= kMostPixels &&
                       frame->height >= kLeastPixels && frame->height <= kMostPixels;
  return good && bounded && planesOf(*frame) != nullptr ? std::move(frame) : nullptr;
}

struct Plane {
  const uint8_t* bytes;
  int stride;
  int width;
  int height;
  int depth;  // bits of a sample
};

template <typename Sample>
uint32_t meanOf(const Plane& in, int left, int right, int top, int bottom) {
  uint64_t sum = 0;
  for (int row = top; row < bottom; ++row) {
    const uint8_t* line = in.bytes + static_cast<ptrdiff_t>(row) * in.stride;
    for (int column = left; column < right; ++column) {
      Sample sample;
      memcpy(&sample, line + static_cast<size_t>(column) * sizeof sample, sizeof sample);
      sum += sample;
    }
  }
  return static_cast<uint32_t>(sum / static_cast<uint64_t>((bottom - top) * (right - left)));
}

// Each pixel the mean of those that it stands for.
void shrink(const Plane& in, uint8_t* out, int outStride, int outWidth, int outHeight) {
  for (int y = 0; y < outHeight; ++y) {
    const int top = y * in.height / outHeight;
    const int bottom = std::max(top + 1, (y + 1) * in.height / outHeight);
    for (int x = 0; x < outWidth; ++x) {
      const int left = x * in.width / outWidth;
      const int right = std::max(left + 1, (x + 1) * in.width / outWidth);
      const uint32_t mean = in.depth > 8
                                ? meanOf<uint16_t>(in, left, right, top, bottom) >> (in.depth - 8)
                                : meanOf<uint8_t>(in, left, right, top, bottom);
      out[static_cast<ptrdiff_t>(y) * outStride + x] = static_cast<uint8_t>(mean);
    }
  }
}

// Cameras keep black and white apart from the ends of the scale, a JPEG does not.
void stretch(AVFrame* frame) {
  for (int plane = 0; plane < 3; ++plane) {
    const int half = plane == 0 ? 1 : 2;
    for (int y = 0; y < (frame->height + half - 1) / half; ++y) {
      uint8_t* row = frame->data[plane] + static_cast<ptrdiff_t>(y) * frame->linesize[plane];
      for (int x = 0; x < (frame->width + half - 1) / half; ++x) {
        const int value = plane == 0 ? (row[x] - 16) * 255 / 219 : (row[x] - 128) * 255 / 224 + 128;
        row[x] = static_cast<uint8_t>(std::clamp(value, 0, 255));
      }
    }
  }
}

Plane planeOf(const AVFrame& picture, int plane) {
  const AVPixFmtDescriptor* form = planesOf(picture);
  const int across = plane == 0 ? 0 : form->log2_chroma_w;
  const int down = plane == 0 ? 0 : form->log2_chroma_h;
  return {picture.data[plane], picture.linesize[plane], AV_CEIL_RSHIFT(picture.width, across),
          AV_CEIL_RSHIFT(picture.height, down), form->comp[0].depth};
}

bool usesWholeScale(const AVFrame& picture) {
  const auto format = static_cast<AVPixelFormat>(picture.format);
  return picture.color_range == AVCOL_RANGE_JPEG || format == AV_PIX_FMT_YUVJ420P ||
         format == AV_PIX_FMT_YUVJ422P || format == AV_PIX_FMT_YUVJ444P;
}

Frame scaled(const AVFrame& picture, int width) {
  Frame small(av_frame_alloc());
  if (small == nullptr) return nullptr;
  small->format = AV_PIX_FMT_YUVJ420P;
  small->width = std::min(width, picture.width) & ~1;
  small->height = std::max(2, picture.height * small->width / picture.width & ~1);
  small->color_range = AVCOL_RANGE_JPEG;
  if (av_frame_get_buffer(small.get(), 0) < 0) return nullptr;
  const bool coloured = planesOf(picture)->nb_components == 3;
  for (int plane = 0; plane < 3; ++plane) {
    const int half = plane == 0 ? 1 : 2;
    if (plane == 0 || coloured) {
      shrink(planeOf(picture, plane), small->data[plane], small->linesize[plane],
             small->width / half, small->height / half);
    } else {
      memset(small->data[plane], 128,
             static_cast<size_t>(small->linesize[plane] * small->height / 2));
    }
  }
  if (!usesWholeScale(picture)) stretch(small.get());
  return small;
}

std::shared_ptr<const std::string> encode(AVFrame* frame) {
  AvOwned<AVCodecContext> codec(avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG)));
  AvOwned<AVPacket> packet(av_packet_alloc());
  if (codec == nullptr || packet == nullptr) return nullptr;
  codec->width = frame->width;
  codec->height = frame->height;
  codec->pix_fmt = AV_PIX_FMT_YUVJ420P;
  codec->color_range = AVCOL_RANGE_JPEG;
  codec->time_base = {1, 25};
  codec->thread_count = 1;
  codec->flags |= AV_CODEC_FLAG_QSCALE;
  codec->global_quality = kQuality * FF_QP2LAMBDA;
  frame->quality = codec->global_quality;
  if (avcodec_open2(codec.get(), nullptr, nullptr) < 0 ||
      avcodec_send_frame(codec.get(), frame) < 0 ||
      avcodec_receive_packet(codec.get(), packet.get()) < 0)
    return nullptr;
  return std::make_shared<const std::string>(reinterpret_cast<const char*>(packet->data),
                                             static_cast<size_t>(packet->size));
}

}  // namespace

std::shared_ptr<const std::string> Thumbnails::find(uint32_t streamID, uint32_t index,
                                                    uint32_t width) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const Kept& one) {
    return one.streamID == streamID && one.index == index && one.width == width;
  });
  if (found == kept_.end()) return nullptr;
  kept_.splice(kept_.begin(), kept_, found);
  return found->jpeg;
}

std::shared_ptr<const std::string> Thumbnails::make(uint32_t streamID, uint32_t index,
                                                    uint32_t width,
                                                    const std::vector<uint8_t>& annexB) {
  std::shared_ptr<const std::string> jpeg;
  {
    const std::lock_guard<std::mutex> lock(decoding_);
    const Frame picture = decode(annexB);
    const Frame small = picture != nullptr ? scaled(*picture, static_cast<int>(width)) : nullptr;
    jpeg = small != nullptr ? encode(small.get()) : nullptr;
  }
  if (jpeg == nullptr) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  kept_.push_front({streamID, index, width, jpeg});
  bytes_ += jpeg->size();
  while (bytes_ > kMostBytes && kept_.size() > 1) {
    bytes_ -= kept_.back().jpeg->size();
    kept_.pop_back();
  }
  return jpeg;
}

}  // namespace tarn
