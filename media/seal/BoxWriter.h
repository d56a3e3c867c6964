#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tarn {

// Boxes of an ISO media file, one in the other, in memory. Used by one thread.
class BoxWriter {
 public:
  // Between begin() and end() lies what the box holds. `type` has four letters.
  void begin(const char* type) {
    open_.push_back(bytes_.size());
    u32(0);
    bytes_.insert(bytes_.end(), type, type + 4);
  }
  void beginFull(const char* type, uint8_t version) {
    begin(type);
    u32(uint32_t{version} << 24);
  }
  void end() {
    const size_t at = open_.back();
    open_.pop_back();
    for (size_t i = 0; i < 4; ++i)
      bytes_[at + i] = static_cast<uint8_t>((bytes_.size() - at) >> (24 - 8 * i));
  }
  void u16(uint16_t value) { number(value, 2); }
  void u32(uint32_t value) { number(value, 4); }
  void u64(uint64_t value) { number(value, 8); }
  // With the zero that ends it, which the text itself cannot hold.
  void text(const std::string& value) {
    bytes_.insert(bytes_.end(), value.c_str(), value.c_str() + strlen(value.c_str()) + 1);
  }
  void bytes(const std::vector<uint8_t>& value) {
    bytes_.insert(bytes_.end(), value.begin(), value.end());
  }
  void zeros(size_t count) { bytes_.resize(bytes_.size() + count); }

  const std::vector<uint8_t>& all() const { return bytes_; }

 private:
  void number(uint64_t value, int size) {
    for (int i = size - 1; i >= 0; --i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
  }

  std::vector<uint8_t> bytes_;
  std::vector<size_t> open_;  // where the boxes begin that are not ended
};

}  // namespace tarn
