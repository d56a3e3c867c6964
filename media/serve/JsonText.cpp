#include "media/serve/JsonText.h"

#include <cstdio>

namespace tarn {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

}  // namespace

size_t utf8CharacterBytes(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t head = byte(0);
  if (head < 0x80) return 1;
  const size_t size = head >= 0xF0 ? 4 : head >= 0xE0 ? 3 : 2;
  if (head < 0xC2 || head > 0xF4 || text.size() < size) return 0;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  // Neither overlong, nor half of a pair, nor beyond the last character.
  if (head == 0xE0 && byte(1) < 0xA0) return 0;
  if (head == 0xED && byte(1) > 0x9F) return 0;
  if (head == 0xF0 && byte(1) < 0x90) return 0;
  return head == 0xF4 && byte(1) > 0x8F ? 0 : size;
}

void JsonText::comma() {
  if (!first_) out_ += ',';
  first_ = false;
}

JsonText& JsonText::begin(char bracket) {
  comma();
  out_ += bracket;
  closing_ += bracket == '{' ? '}' : ']';
  first_ = true;
  return *this;
}

JsonText& JsonText::end() {
  out_ += closing_.back();
  closing_.pop_back();
  first_ = false;
  return *this;
}

JsonText& JsonText::key(const char* name) {
  text(name);
  out_ += ':';
  first_ = true;
  return *this;
}

JsonText& JsonText::text(std::string_view value) {
  comma();
  out_ += '"';
  for (size_t size; !value.empty(); value.remove_prefix(size)) {
    size = utf8CharacterBytes(value);
    const auto head = static_cast<uint8_t>(value[0]);
    if (size == 0) {
      out_ += kReplacement;
      size = 1;
    } else if (head < 0x20 || head == '"' || head == '\\') {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", unsigned{head});
      out_ += escaped;
    } else {
      out_.append(value.substr(0, size));
    }
  }
  out_ += '"';
  return *this;
}

JsonText& JsonText::number(int64_t value) {
  comma();
  out_ += std::to_string(value);
  return *this;
}

JsonText& JsonText::thousandths(int64_t value) {
  comma();
  if (value < 0) out_ += '-';
  const uint64_t size =
      value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  out_ += std::to_string(size / 1000);
  if (size % 1000 != 0) {
    char decimals[8];
    snprintf(decimals, sizeof decimals, ".%03u", static_cast<unsigned>(size % 1000));
    out_ += decimals;
    while (out_.back() == '0') out_.pop_back();
  }
  return *this;
}

JsonText& JsonText::boolean(bool value) {
  comma();
  out_ += value ? "true" : "false";
  return *this;
}

JsonText& JsonText::null() {
  comma();
  out_ += "null";
  return *this;
}

}  // namespace tarn
