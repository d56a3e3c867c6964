#include "media/evidence/HtmlText.h"

#include <cstdint>

#include "media/serve/JsonText.h"

namespace tarn {
namespace {

constexpr char kReplacement[] = "&#xFFFD;";

// U+200E, U+200F, U+202A to U+202E and U+2066 to U+2069: they turn the direction of writing.
bool turnsDirection(std::string_view character) {
  if (character.size() != 3 || character[0] != '\xE2') return false;
  const auto third = static_cast<uint8_t>(character[2]);
  if (character[1] == '\x80')
    return third == 0x8E || third == 0x8F || (third >= 0xAA && third <= 0xAE);
  return character[1] == '\x81' && third >= 0xA6 && third <= 0xA9;
}

void addCharacter(std::string_view character, std::string* out) {
  const auto head = static_cast<uint8_t>(character[0]);
  switch (head) {
    case '&':
      *out += "&amp;";
      return;
    case '<':
      *out += "&lt;";
      return;
    case '>':
      *out += "&gt;";
      return;
    case '"':
      *out += "&quot;";
      return;
    case '\'':
      *out += "&#39;";
      return;
    default:
      break;
  }
  // Those of ASCII, and U+0080 to U+009F.
  const bool control = (head < 0x20 && head != '\t') || head == 0x7F ||
                       (head == 0xC2 && static_cast<uint8_t>(character[1]) < 0xA0);
  if (control || turnsDirection(character)) {
    *out += kReplacement;
  } else {
    out->append(character);
  }
}

}  // namespace

std::string htmlText(std::string_view text) {
  std::string out;
  for (size_t size; !text.empty(); text.remove_prefix(size)) {
    size = utf8CharacterBytes(text);
    if (size == 0) {
      out += kReplacement;
      size = 1;
    } else {
      addCharacter(text.substr(0, size), &out);
    }
  }
  return out;
}

}  // namespace tarn
