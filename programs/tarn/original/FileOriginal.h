#pragma once

#include <memory>
#include <string>

#include "CardOriginal.h"
#include "base/UniqueFd.h"

namespace tarn {

// A block device or image file, opened for reading only; where its owner asks, the time of its last
// reading stays as it is, too.
class FileOriginal : public CardOriginal {
 public:
  // Null with the reason in *error.
  static std::unique_ptr<FileOriginal> open(const std::string& path, std::string* error);

  uint64_t size() const override { return size_; }
  bool read(uint64_t offset, void* out, size_t length) override;

 private:
  FileOriginal(UniqueFd fd, uint64_t size) : fd_(std::move(fd)), size_(size) {}

  UniqueFd fd_;
  uint64_t size_;
};

// O_RDONLY, and O_NOATIME where the kernel allows it. -1 with errno.
int openUntouched(const std::string& path);

}  // namespace tarn
