#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

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

}  // namespace tarn
