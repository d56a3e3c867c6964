#include "media/MovieOutput.h"

#include <cstdint>
#include <vector>

namespace tarn {

// The movie whose parts are put in order when it is complete: it can be written to a file only.
class MovieOutput::File : public MovieMuxer {
 public:
  ~File() override {
    if (muxer() != nullptr) avio_closep(&muxer()->pb);
  }

  bool open(const char* kind, const std::string& path, size_t tracks) {
    if (!create(kind, path, tracks)) return false;
    // A name is a file, never an address.
    const int result = avio_open(&muxer()->pb, ("file:" + path).c_str(), AVIO_FLAG_WRITE);
    return result >= 0 || failWith("create", result);
  }

  bool complete() {
    int result = begun() ? av_write_trailer(muxer()) : AVERROR_INVALIDDATA;
    const int closed = avio_closep(&muxer()->pb);
    if (result >= 0) result = closed;
    return result >= 0 || failWith("complete", result);
  }

 private:
  // All tracks count from the first picture of all, so that they stay side by side.
  bool begin() override { return writeHeader(firstShownUs(), nullptr); }

  // The muxer would put what is later than that right behind the piece before, and all that
  // follows.
  bool put(AVPacket* piece) override {
    lastDts_.resize(muxer()->nb_streams, INT64_MAX);
    int64_t& last = lastDts_[static_cast<size_t>(piece->stream_index)];
    if (last != INT64_MAX && piece->dts - last > INT32_MAX)
      return fail(
          "a gap is longer than a movie in one part can have: export what is before and "
          "behind it by itself");
    last = piece->dts;
    const int result = av_write_frame(muxer(), piece);
    return result >= 0 || failWith("write", result);
  }

  std::vector<int64_t> lastDts_;  // of each stream, in its time base; INT64_MAX before the first
};

bool MovieOutput::told(bool good) {
  if (!good) error_ = file_->error();
  return good;
}

bool MovieOutput::open(const char* kind, const std::string& path, size_t tracks) {
  file_ = std::make_shared<File>();
  return told(file_->open(kind, path, tracks));
}

bool MovieOutput::describe(size_t track, const OutputPicture& first) {
  return told(file_->describe(track, first));
}

bool MovieOutput::write(const OutputPicture& picture, size_t track) {
  return told(file_->write(picture, track));
}

bool MovieOutput::describe(size_t track, const OutputSound& first) {
  return told(file_->describe(track, first));
}

bool MovieOutput::write(const OutputSound& sound, size_t track) {
  return told(file_->write(sound, track));
}

bool MovieOutput::complete() { return told(file_->complete()); }

}  // namespace tarn
