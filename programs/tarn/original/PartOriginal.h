#pragma once

#include <memory>

#include "CardOriginal.h"

namespace tarn {

// A stretch of an original, as a partition is one of a device.
class PartOriginal : public CardOriginal {
 public:
  PartOriginal(std::unique_ptr<CardOriginal> whole, uint64_t firstByte, uint64_t bytes)
      : whole_(std::move(whole)), firstByte_(firstByte), bytes_(bytes) {}

  uint64_t size() const override { return bytes_; }
  bool read(uint64_t offset, void* out, size_t length) override {
    return offset <= bytes_ && length <= bytes_ - offset &&
           whole_->read(firstByte_ + offset, out, length);
  }

 private:
  std::unique_ptr<CardOriginal> whole_;
  const uint64_t firstByte_;
  const uint64_t bytes_;
};

}  // namespace tarn
