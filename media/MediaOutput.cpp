#include "media/MediaOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "media/MovieOutput.h"

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
  bool describe(size_t /*track*/, const OutputSound& /*first*/) override { return noSound(); }
  bool write(const OutputSound& /*sound*/, size_t /*track*/) override { return noSound(); }

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
  bool noSound() {
    error_ = "a bare stream holds no sound";
    return false;
  }

  bool complete() override {
    if (file_.close() == 0) return true;
    error_ = "cannot write " + partPath_ + ": " + strerror(errno);
    return false;
  }

  UniqueFd file_;
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
  const auto opened = [&](auto output, auto... how) -> std::unique_ptr<MediaOutput> {
    output->path_ = path;
    output->partPath_ = partPath;
    if (output->open(how...)) return output;
    *error = output->error();
    return nullptr;
  };
  for (const char* muxer : {"mp4", "mov"}) {
    if (endsWith(path, std::string(".") + muxer))
      return opened(std::make_unique<MovieOutput>(), muxer, partPath, tracks);
  }
  if (tracks > 1) {
    *error = path + ": only an .mp4 or .mov holds several tracks";
    return nullptr;
  }
  if (endsWith(path, ".h264")) return opened(std::make_unique<StreamOutput>(), partPath);
  *error = path + ": the name must end in .mp4, .mov or .h264";
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
