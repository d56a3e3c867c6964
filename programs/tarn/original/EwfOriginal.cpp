#include "EwfOriginal.h"

#ifdef TARN_WITH_EWF

#include <libewf.h>

namespace tarn {
namespace {

// What libewf has to say, without the way it went.
std::string takeText(libewf_error_t** error) {
  char text[512] = "";
  if (*error != nullptr && libewf_error_sprint(*error, text, sizeof text) < 0) text[0] = '\0';
  libewf_error_free(error);
  return text;
}

class OpenEwf : public CardOriginal {
 public:
  OpenEwf() = default;
  ~OpenEwf() override {
    if (handle_ == nullptr) return;
    libewf_handle_close(handle_, nullptr);
    libewf_handle_free(&handle_, nullptr);
  }

  bool open(const std::string& path, std::string* error) {
    libewf_error_t* fault = nullptr;
    char** names = nullptr;
    int count = 0;
    const bool opened = libewf_glob(path.c_str(), path.size(), LIBEWF_FORMAT_UNKNOWN, &names,
                                    &count, &fault) == 1 &&
                        libewf_handle_initialize(&handle_, &fault) == 1 &&
                        libewf_handle_open(handle_, names, count, LIBEWF_OPEN_READ, &fault) == 1 &&
                        libewf_handle_set_read_zero_chunk_on_error(handle_, 0, &fault) == 1 &&
                        libewf_handle_get_media_size(handle_, &size_, &fault) == 1;
    if (names != nullptr) libewf_glob_free(names, count, nullptr);
    if (!opened)
      *error = "the Expert Witness image " + path + " cannot be read: " + takeText(&fault);
    return opened;
  }

  bool lacksSegments() const {
    return libewf_handle_segment_files_corrupted(handle_, nullptr) != 0;
  }

  uint64_t size() const override { return size_; }

  // Damaged chunks are given all the same, and only counted: that there is one more now is how it
  // shows.
  bool read(uint64_t offset, void* out, size_t length) override {
    if (offset > size_ || length > size_ - offset) return false;
    const uint32_t before = damaged();
    libewf_error_t* fault = nullptr;
    const ssize_t got =
        libewf_handle_read_random(handle_, out, length, static_cast<off64_t>(offset), &fault);
    libewf_error_free(&fault);
    return got == static_cast<ssize_t>(length) && damaged() == before &&
           !touchesDamage(offset, length);
  }

 private:
  uint32_t damaged() const {
    uint32_t count = 0;
    libewf_handle_get_number_of_checksum_errors(handle_, &count, nullptr);
    return count;
  }

  // Sectors that were found damaged at an earlier read.
  bool touchesDamage(uint64_t offset, size_t length) const {
    for (uint32_t i = 0; i < damaged(); ++i) {
      uint64_t sector = 0;
      uint64_t sectors = 0;
      if (libewf_handle_get_checksum_error(handle_, i, &sector, &sectors, nullptr) != 1)
        return true;
      if (offset < (sector + sectors) * kSector && offset + length > sector * kSector) return true;
    }
    return false;
  }

  static constexpr uint64_t kSector = 512;
  libewf_handle_t* handle_ = nullptr;
  size64_t size_ = 0;
};

}  // namespace

std::unique_ptr<CardOriginal> EwfOriginal::open(const std::string& path, std::string* note,
                                                std::string* error) {
  auto image = std::make_unique<OpenEwf>();
  if (!image->open(path, error)) return nullptr;
  if (image->lacksSegments()) {
    *note = path + ": segments of the image are missing or cut short: what they held is not known";
  }
  return image;
}

}  // namespace tarn

#else

namespace tarn {

std::unique_ptr<CardOriginal> EwfOriginal::open(const std::string& path, std::string*,
                                                std::string* error) {
  *error = path +
           " is an Expert Witness image, which this build cannot read: it was built without "
           "libewf";
  return nullptr;
}

}  // namespace tarn

#endif
