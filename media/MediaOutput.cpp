#include "media/MediaOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/UniqueFd.h"
#include "media/Av.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

bool endsWith(const std::string& text, const std::string& ending) {
  return text.size() > ending.size() &&
         text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

class StreamOutput : public MediaOutput {
 public:
  bool open(const std::string& path) {
    file_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file_.valid()) error_ = "cannot create " + path + ": " + strerror(errno);
    return file_.valid();
  }

  bool describe(size_t /*track*/, const OutputPicture& /*first*/) override { return true; }

  bool write(const OutputPicture& picture, size_t /*track*/) override {
    const uint8_t* data = picture.annexB.data();
    size_t left = picture.annexB.size();
    while (left > 0) {
      const ssize_t put = TEMP_FAILURE_RETRY(::write(file_.get(), data, left));
      if (put <= 0) {
        error_ = "cannot write " + partPath_ + ": " + strerror(put == 0 ? ENOSPC : errno);
        return false;
      }
      data += put;
      left -= static_cast<size_t>(put);
    }
    return true;
  }

 private:
  bool complete() override {
    if (file_.close() == 0) return true;
    error_ = "cannot write " + partPath_ + ": " + strerror(errno);
    return false;
  }

  UniqueFd file_;
};

struct MuxerDeleter {
  void operator()(AVFormatContext* context) const {
    avio_closep(&context->pb);
    avformat_free_context(context);
  }
};

class Mp4Output : public MediaOutput {
 public:
  bool open(const std::string& path) {
    AVFormatContext* raw = nullptr;
    int result = avformat_alloc_output_context2(&raw, nullptr, "mp4", nullptr);
    if (result >= 0) {
      muxer_.reset(raw);
      // A name is a file, never an address.
      result = avio_open(&raw->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE);
    }
    packet_.reset(av_packet_alloc());
    if (result >= 0 && packet_ != nullptr) return true;
    error_ = "cannot create " + path + ": " + avErrorText(result);
    return false;
  }

  void setTracks(size_t tracks) { tracks_.resize(tracks); }

  bool describe(size_t track, const OutputPicture& first) override {
    Track& t = tracks_[track];
    t.stream = avformat_new_stream(muxer_.get(), nullptr);
    if (t.stream == nullptr || !describe(t.stream->codecpar, first)) return false;
    t.first = first.presentation;
    // Microseconds, so that a picture's time survives to the last digit.
    t.stream->time_base = kMicroseconds;
    return true;
  }

  bool write(const OutputPicture& picture, size_t track) override {
    Track& t = tracks_[track];
    if (t.stream == nullptr && !describe(track, picture)) return false;
    if (!headerWritten_ && !begin()) return false;
    packet_->data = const_cast<uint8_t*>(picture.annexB.data());  // the muxer only reads it
    packet_->size = static_cast<int>(picture.annexB.size());
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
    const int result = av_write_frame(muxer_.get(), packet_.get());
    av_packet_unref(packet_.get());
    if (result < 0) error_ = "cannot write " + partPath_ + ": " + avErrorText(result);
    return result >= 0;
  }

 private:
  struct Track {
    AVStream* stream = nullptr;  // owned by muxer_
    PictureTime first;
    bool started = false;
    int64_t lastDts = 0;
  };

  // All tracks count from the first picture of all, so that they stay side by side.
  bool begin() {
    PictureTime first = tracks_.front().first;
    for (const Track& track : tracks_) first = std::min(first, track.first);
    originUs_ = first.totalMicros();
    AVDictionary* options = nullptr;
    av_dict_set(&options, "video_track_timescale", "1000000", 0);
    setDate(first);
    const int result = avformat_write_header(muxer_.get(), &options);
    av_dict_free(&options);
    if (result < 0) error_ = "cannot begin " + partPath_ + ": " + avErrorText(result);
    headerWritten_ = result >= 0;
    return headerWritten_;
  }

  // The file's own clock counts whole seconds; the date has the rest.
  void setDate(PictureTime time) {
    char text[64];
    const time_t seconds = static_cast<time_t>(time.seconds);
    tm utc{};
    const size_t length =
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc));
    snprintf(text + length, sizeof text - length, ".%06uZ", static_cast<unsigned>(time.micros));
    av_dict_set(&muxer_->metadata, "creation_time", text, 0);
    av_dict_set(&muxer_->metadata, "date", text, 0);
  }

  // Size of the picture and parameter sets, which the muxer wants before the first picture.
  bool describe(AVCodecParameters* parameters, const OutputPicture& first) {
    parameters->codec_type = AVMEDIA_TYPE_VIDEO;
    parameters->codec_id = AV_CODEC_ID_H264;
    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    AvOwned<AVCodecContext> codec(avcodec_alloc_context3(decoder));
    AvOwned<AVCodecParserContext> parser(av_parser_init(AV_CODEC_ID_H264));
    NalUnit sps, pps;
    if (codec == nullptr || parser == nullptr ||
        !findParameterSets(first.annexB.data(), first.annexB.size(), &sps, &pps)) {
      error_ = "the first picture carries no parameter sets; it cannot be decoded on its own";
      return false;
    }
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    std::vector<uint8_t> padded(first.annexB);
    padded.resize(padded.size() + AV_INPUT_BUFFER_PADDING_SIZE);
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(parser.get(), codec.get(), &out, &outSize, padded.data(),
                     static_cast<int>(first.annexB.size()), 0, 0, 0);
    parameters->width = parser->width;
    parameters->height = parser->height;
    return setExtradata(parameters, sps, pps);
  }

  bool setExtradata(AVCodecParameters* parameters, const NalUnit& sps, const NalUnit& pps) {
    const size_t size = 8 + sps.size + pps.size;
    auto* data = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
    if (data == nullptr) {
      error_ = "out of memory";
      return false;
    }
    parameters->extradata = data;
    parameters->extradata_size = static_cast<int>(size);
    for (const NalUnit* unit : {&sps, &pps}) {
      data[3] = 1;  // start code 00 00 00 01
      memcpy(data + 4, unit->data, unit->size);
      data += 4 + unit->size;
    }
    return true;
  }

  bool complete() override {
    int result = headerWritten_ ? av_write_trailer(muxer_.get()) : AVERROR_INVALIDDATA;
    const int closed = avio_closep(&muxer_->pb);
    if (result >= 0) result = closed;
    if (result < 0) error_ = "cannot complete " + partPath_ + ": " + avErrorText(result);
    return result >= 0;
  }

  std::unique_ptr<AVFormatContext, MuxerDeleter> muxer_;
  AvOwned<AVPacket> packet_;
  std::vector<Track> tracks_;
  bool headerWritten_ = false;
  int64_t originUs_ = 0;
};

}  // namespace

std::unique_ptr<MediaOutput> MediaOutput::create(const std::string& path, bool overwrite,
                                                 std::string* error, size_t tracks) {
  av_log_set_level(AV_LOG_FATAL);
  if (!overwrite && ::access(path.c_str(), F_OK) == 0) {
    *error = path + " exists; --force replaces it";
    return nullptr;
  }
  const std::string partPath = path + ".part";
  const auto opened = [&](auto output) -> std::unique_ptr<MediaOutput> {
    output->path_ = path;
    output->partPath_ = partPath;
    if (output->open(partPath)) return output;
    *error = output->error();
    return nullptr;
  };
  if (endsWith(path, ".mp4")) {
    auto output = std::make_unique<Mp4Output>();
    output->setTracks(tracks);
    return opened(std::move(output));
  }
  if (tracks > 1) {
    *error = path + ": only an .mp4 holds several tracks";
    return nullptr;
  }
  if (endsWith(path, ".h264")) return opened(std::make_unique<StreamOutput>());
  *error = path + ": the name must end in .mp4 or .h264";
  return nullptr;
}

MediaOutput::~MediaOutput() {
  if (!partPath_.empty()) ::unlink(partPath_.c_str());
}

bool MediaOutput::finish() {
  if (!complete()) return false;
  const UniqueFd file(::open(partPath_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid() || ::fsync(file.get()) != 0 ||
      ::rename(partPath_.c_str(), path_.c_str()) != 0) {
    error_ = "cannot complete " + path_ + ": " + strerror(errno);
    return false;
  }
  partPath_.clear();
  return true;
}

}  // namespace tarn
