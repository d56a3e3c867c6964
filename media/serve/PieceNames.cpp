#include "media/serve/PieceNames.h"

namespace tarn {
namespace {

constexpr char kSound[] = "sound-";
constexpr char kInit[] = "init-";
constexpr char kInitEnding[] = ".mp4";
constexpr char kPieceEnding[] = ".m4s";
constexpr char kKeysOnly[] = "-k";
constexpr char kFormatMark[] = "-f";
constexpr char kSoundMark[] = "-s";

std::string marked(const char* mark, uint32_t number) {
  return number == 0 ? "" : mark + std::to_string(number);
}

// The number behind a mark at the end, which goes with it. True without the mark, too.
bool takeMarked(std::string* text, const char* mark, uint32_t* value) {
  const size_t at = text->rfind(mark);
  if (at == std::string::npos) return true;
  std::string number = text->substr(at + 2);
  text->erase(at);
  return takeNumber(&number, '\0', value) && *value != 0;
}

}  // namespace

bool takeNumber(std::string* text, char mark, uint32_t* value) {
  const size_t end = mark == '\0' ? text->size() : text->find(mark);
  if (end == std::string::npos || end == 0 || end > 10) return false;
  uint64_t number = 0;
  for (size_t i = 0; i < end; ++i) {
    const char digit = (*text)[i];
    if (digit < '0' || digit > '9') return false;
    number = number * 10 + static_cast<uint64_t>(digit - '0');
  }
  text->erase(0, mark == '\0' ? end : end + 1);
  *value = static_cast<uint32_t>(number);
  return number <= UINT32_MAX;
}

bool takeWord(std::string* text, const std::string& word) {
  if (text->compare(0, word.size(), word) != 0) return false;
  text->erase(0, word.size());
  return true;
}

bool takeEnding(std::string* text, const std::string& ending) {
  if (text->size() < ending.size()) return false;
  const size_t at = text->size() - ending.size();
  if (text->compare(at, ending.size(), ending) != 0) return false;
  text->erase(at);
  return true;
}

std::string nameOf(const InitPlace& place) {
  if (place.streamID == 0) return kSound + std::to_string(place.soundID) + kInitEnding;
  return kInit + std::to_string(place.streamID) + marked(kFormatMark, place.format) +
         marked(kSoundMark, place.soundID) + kInitEnding;
}

std::string nameOf(const PiecePlace& place) {
  return (place.sound ? kSound : "") + std::to_string(place.streamID) + "-" +
         std::to_string(place.first) + "-" + std::to_string(place.count) +
         marked(kFormatMark, place.format) + marked(kSoundMark, place.soundID) +
         (place.keysOnly ? kKeysOnly : "") + kPieceEnding;
}

bool readName(const std::string& name, InitPlace* place) {
  std::string rest = name;
  *place = InitPlace();
  if (!takeEnding(&rest, kInitEnding)) return false;
  if (takeWord(&rest, kSound)) return takeNumber(&rest, '\0', &place->soundID);
  return takeWord(&rest, kInit) && takeMarked(&rest, kSoundMark, &place->soundID) &&
         takeMarked(&rest, kFormatMark, &place->format) &&
         takeNumber(&rest, '\0', &place->streamID) && place->streamID != 0;
}

bool readName(const std::string& name, PiecePlace* place) {
  std::string rest = name;
  *place = PiecePlace();
  if (!takeEnding(&rest, kPieceEnding)) return false;
  place->sound = takeWord(&rest, kSound);
  place->keysOnly = !place->sound && takeEnding(&rest, kKeysOnly);
  const bool marks = place->sound || (takeMarked(&rest, kSoundMark, &place->soundID) &&
                                      takeMarked(&rest, kFormatMark, &place->format));
  return marks && takeNumber(&rest, '-', &place->streamID) &&
         takeNumber(&rest, '-', &place->first) && takeNumber(&rest, '\0', &place->count) &&
         place->count > 0;
}

}  // namespace tarn
