#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// What a decoder has to know before pieces: whose it is.
struct InitPlace {
  uint32_t streamID = 0;  // the recording of pictures; 0: sound alone
  uint32_t format = 0;    // the key picture of it at which the format begins; 0: its first
  uint32_t soundID = 0;   // the recording of sound; 0: none

  bool isNone() const { return streamID == 0 && soundID == 0; }
};

inline bool operator==(const InitPlace& a, const InitPlace& b) {
  return a.streamID == b.streamID && a.format == b.format && a.soundID == b.soundID;
}
inline bool operator!=(const InitPlace& a, const InitPlace& b) { return !(a == b); }

// Pictures of one recording with the sound of their time, or blocks of one of sound.
struct PiecePlace {
  uint32_t streamID = 0;
  uint32_t first = 0;
  uint32_t count = 0;
  uint32_t format = 0;   // of the pictures, as above
  uint32_t soundID = 0;  // the sound that comes along has this recording's format; 0: none does
  bool keysOnly = false;
  bool sound = false;  // it is one of sound alone
};

// The last part of their addresses: "init-12.mp4", "init-12-f450-s34.mp4", of sound alone
// "sound-34.mp4"; "12-450-50.m4s", "12-450-50-f450-s34-k.m4s", of sound alone "sound-34-0-4.m4s".
TARN_API std::string nameOf(const InitPlace& place);
TARN_API std::string nameOf(const PiecePlace& place);
// False for a name that the functions above do not give.
TARN_API bool readName(const std::string& name, InitPlace* place);
TARN_API bool readName(const std::string& name, PiecePlace* place);

// Digits up to a mark, or to the end: what is left behind the mark stays in *text.
TARN_API bool takeNumber(std::string* text, char mark, uint32_t* value);
TARN_API bool takeWord(std::string* text, const std::string& word);
TARN_API bool takeEnding(std::string* text, const std::string& ending);

}  // namespace tarn
