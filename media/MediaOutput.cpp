#include "media/MediaOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/FileSync.h"
#include "base/UniqueFd.h"
#include "media/FragmentedOutput.h"
#include "media/MovieOutput.h"
#include "media/OutputFile.h"
#include "media/OutputFormat.h"

namespace tarn {
namespace {

class StreamOutput : public MediaOutput {
 public:
  bool open(const std::string& path) { return told(file_.open(path)); }

  bool describe(size_t /*track*/, const OutputPicture& /*first*/) override { return true; }
  bool describe(size_t /*track*/, const OutputSound& /*first*/) override { return noSound(); }
  bool write(const OutputSound& /*sound*/, size_t /*track*/) override { return noSound(); }

  bool write(const OutputPicture& picture, size_t /*track*/) override {
    return told(file_.write(picture.annexB.data(), picture.annexB.size()));
  }

 private:
  bool noSound() {
    error_ = "a bare stream holds no sound";
    return false;
  }

  bool told(bool good) {
    if (!good) error_ = file_.error();
    return good;
  }
  bool complete() override { return told(file_.close()); }

  OutputFile file_;
};

}  // namespace

std::unique_ptr<MediaOutput> MediaOutput::create(const std::string& path, bool overwrite,
                                                 std::string* error, size_t tracks) {
  return create(path, overwrite, error, tracks, 0);
}

std::unique_ptr<MediaOutput> MediaOutput::create(const std::string& path, bool overwrite,
                                                 std::string* error, size_t tracks,
                                                 int64_t longestGapUs) {
  const OutputFormat format = outputFormat(path);
  const std::string target = path == kStandardOutput ? path : path + ".part";
  const auto opened = [&](auto output, auto... how) -> std::unique_ptr<MediaOutput> {
    if (output->takeName(path, overwrite) && output->open(how...)) return output;
    *error = output->error();
    return nullptr;
  };
  if (format == OutputFormat::kMp4 || format == OutputFormat::kMov) {
    const char* const muxer = format == OutputFormat::kMp4 ? "mp4" : "mov";
    if (longestGapUs > MovieOutput::kMostGapUs)
      return opened(std::make_unique<FragmentedOutput>(), muxer, target, tracks);
    return opened(std::make_unique<MovieOutput>(), muxer, target, tracks);
  }
  if (tracks > 1) {
    *error = path + ": only an .mp4 or .mov holds several tracks";
    return nullptr;
  }
  if (format == OutputFormat::kBare) return opened(std::make_unique<StreamOutput>(), target);
  *error = path + ": the name must end in .mp4, .mov or .h264";
  return nullptr;
}

bool MediaOutput::takeName(const std::string& path, bool overwrite) {
  av_log_set_level(AV_LOG_FATAL);
  const bool file = path != kStandardOutput;
  if (file && !overwrite && ::access(path.c_str(), F_OK) == 0) {
    error_ = path + " exists; --force replaces it";
    return false;
  }
  path_ = path;
  if (file) partPath_ = path + ".part";
  return true;
}

MediaOutput::~MediaOutput() {
  if (!partPath_.empty()) ::unlink(partPath_.c_str());
}

bool MediaOutput::finish() {
  if (!complete()) return false;
  if (partPath_.empty()) return true;
  const UniqueFd file(::open(partPath_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.valid() || syncFile(file.get()) != 0 ||
      ::rename(partPath_.c_str(), path_.c_str()) != 0) {
    error_ = "cannot complete " + path_ + ": " + strerror(errno);
    return false;
  }
  partPath_.clear();
  return true;
}

}  // namespace tarn
