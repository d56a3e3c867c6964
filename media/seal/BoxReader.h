#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tarn {

// The boxes that follow each other in a piece of an ISO media file, which may hold anything. Used
// by one thread.
class BoxReader {
 public:
  // `data` outlives this. Places are counted from it.
  BoxReader(const uint8_t* data, size_t begin, size_t end) : data_(data), next_(begin), end_(end) {}

  // To the next box. False behind the last one, and where the bytes are no box: whole() tells.
  bool next() {
    if (end_ - next_ < kHeader) return false;
    const uint64_t size = numberAt(next_, 4);
    if (size < kHeader || size > end_ - next_) return false;
    begin_ = next_;
    next_ += static_cast<size_t>(size);
    return true;
  }
  // Whether boxes fill the piece to its end.
  bool whole() const { return next_ == end_; }

  // Of the box at hand: where it begins, where its contents do, where it ends.
  size_t boxBegin() const { return begin_; }
  size_t begin() const { return begin_ + kHeader; }
  size_t end() const { return next_; }
  size_t size() const { return next_ - begin(); }  // of its contents
  bool is(const char* type) const {
    return std::string(type) == std::string(data_ + begin_ + 4, data_ + begin_ + kHeader);
  }
  // The caller has looked at the size.
  uint64_t numberAt(size_t at, size_t size) const {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | data_[at + i];
    return value;
  }
  // Text from *at to the zero that ends it; *at goes behind that. False where none does.
  bool textAt(size_t* at, std::string* text) const {
    text->clear();
    for (; *at < next_; ++*at) {
      if (data_[*at] == 0) return ++*at, true;
      text->push_back(static_cast<char>(data_[*at]));
    }
    return false;
  }

 private:
  static constexpr size_t kHeader = 8;

  const uint8_t* data_;
  size_t begin_ = 0;
  size_t next_;
  size_t end_;
};

}  // namespace tarn
