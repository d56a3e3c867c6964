#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

// Owners of libav objects, and its error codes in words.
namespace tarn {

struct AvDeleter {
  void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
template <class T>
using AvOwned = std::unique_ptr<T, AvDeleter>;

inline std::string avErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

inline constexpr AVRational kMicroseconds = {1, 1000000};

// An input tells whatever times it likes. Those that no clock could show become the last ones here,
// so that sums of a few of them are still numbers.
inline constexpr int64_t kMostInputUs = int64_t{1} << 58;
inline int64_t boundedUs(int64_t micros) { return std::clamp(micros, -kMostInputUs, kMostInputUs); }
// A time of an input, which is told in `base`, in microseconds.
inline int64_t inputUs(int64_t stamp, AVRational base) {
  return boundedUs(av_rescale_q(stamp, base, kMicroseconds));
}

}  // namespace tarn
