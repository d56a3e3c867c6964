#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tarn {

// Text of one SQL statement, put together from pieces and unsigned decimals without heap use. The
// longest statement that the gateway builds (an update of every STREAM column) has about 400
// characters; a piece that would not fit is cut, never written past the end.
class SqlText {
 public:
  explicit SqlText(const char* text) { add(text); }

  SqlText& add(const char* text) { return add(text, strlen(text)); }

  SqlText& add(uint32_t value) {
    char digits[10];
    size_t first = sizeof digits;
    do {
      digits[--first] = static_cast<char>('0' + value % 10);
      value /= 10;
    } while (value != 0);
    return add(digits + first, sizeof digits - first);
  }

  void dropLast() {
    if (length_ > 0) text_[--length_] = '\0';
  }

  const char* c_str() const { return text_; }
  size_t length() const { return length_; }

 private:
  static constexpr size_t kRoom = 1024;

  SqlText& add(const char* text, size_t length) {
    const size_t left = kRoom - 1 - length_;
    const size_t taken = length < left ? length : left;
    memcpy(text_ + length_, text, taken);
    length_ += taken;
    text_[length_] = '\0';
    return *this;
  }

  size_t length_ = 0;
  char text_[kRoom];
};

}  // namespace tarn
