#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/Export.h"

namespace tarn {

// Bytes of the character of UTF-8 that begins there; 0 when none does. Not of an empty text.
TARN_API size_t utf8CharacterBytes(std::string_view text);

// Writes JSON in one go, without a tree of it in memory: answers tell of hundreds of thousands of
// rows. The caller keeps beginnings, keys and ends in order. Used by one thread.
class TARN_API JsonText {
 public:
  JsonText& beginObject() { return begin('{'); }
  JsonText& beginArray() { return begin('['); }
  JsonText& end();
  JsonText& key(const char* name);

  // Bytes that are no UTF-8 become U+FFFD each.
  JsonText& text(std::string_view value);
  JsonText& number(int64_t value);
  // `value` / 1000, with as many decimals as it takes: microseconds as milliseconds, and shares.
  JsonText& thousandths(int64_t value);
  JsonText& boolean(bool value);
  JsonText& null();

  size_t size() const { return out_.size(); }
  std::string take() { return std::move(out_); }

 private:
  JsonText& begin(char bracket);
  void comma();

  std::string out_;
  std::string closing_;  // what closes what is open
  bool first_ = true;    // nothing stands in front of the next value
};

}  // namespace tarn
