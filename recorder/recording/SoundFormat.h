#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {

// How sound is coded. The numbers stand on the card; later versions may add more.
enum class SoundCodec : uint8_t {
  kUnknown = 0,
  kAac = 1,    // raw frames of MPEG-4 AAC, without a header of their own
  kAlaw = 2,   // G.711, A-law
  kMulaw = 3,  // G.711, µ-law
  kOpus = 4,
};

// What a decoder has to know of sound before its first frame.
struct SoundFormat {
  static constexpr size_t kMostConfig = 255;  // bytes of `config`

  SoundCodec codec = SoundCodec::kUnknown;
  uint8_t channels = 0;
  uint32_t sampleRate = 0;      // samples a second; of Opus 48000, whatever was put into it
  std::vector<uint8_t> config;  // AAC: AudioSpecificConfig; Opus: its identification header
};

TARN_API bool operator==(const SoundFormat& a, const SoundFormat& b);
inline bool operator!=(const SoundFormat& a, const SoundFormat& b) { return !(a == b); }

// True for a codec that is known, with channels, a sample rate and no more than kMostConfig bytes.
TARN_API bool isUsable(const SoundFormat& format);
// "AAC", "G.711 A-law", "G.711 µ-law", "Opus", "sound" for others.
TARN_API const char* soundCodecText(SoundCodec codec);
// The same for programs: "aac", "alaw", "mulaw", "opus", "unknown".
TARN_API const char* soundCodecName(SoundCodec codec);

// Whether a row holds sound instead of pictures.
TARN_API bool isSound(const DB_STREAM& row);
// Of a row that isSound(): what its frame setting tells, kUnknown where it tells nothing.
TARN_API SoundCodec soundCodecOf(const DB_STREAM& row);
// The frame setting of a row with such sound.
TARN_API uint16_t frameSetOf(SoundCodec codec);

}  // namespace tarn
