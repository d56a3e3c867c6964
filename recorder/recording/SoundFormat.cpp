#include "recorder/recording/SoundFormat.h"

#include "db/RowStatus.h"

namespace tarn {
namespace {

constexpr uint16_t kCodecMask = 0x7F;  // of the frame setting, below the bit that marks sound
constexpr uint8_t kLastCodec = static_cast<uint8_t>(SoundCodec::kOpus);

}  // namespace

bool operator==(const SoundFormat& a, const SoundFormat& b) {
  return a.codec == b.codec && a.channels == b.channels && a.sampleRate == b.sampleRate &&
         a.config == b.config;
}

bool isUsable(const SoundFormat& format) {
  const auto codec = static_cast<uint8_t>(format.codec);
  return codec != 0 && codec <= kLastCodec && format.channels != 0 && format.sampleRate != 0 &&
         format.config.size() <= SoundFormat::kMostConfig;
}

const char* soundCodecText(SoundCodec codec) {
  switch (codec) {
    case SoundCodec::kAac:
      return "AAC";
    case SoundCodec::kAlaw:
      return "G.711 A-law";
    case SoundCodec::kMulaw:
      return "G.711 \xC2\xB5-law";
    case SoundCodec::kOpus:
      return "Opus";
    case SoundCodec::kUnknown:
      break;
  }
  return "sound";
}

const char* soundCodecName(SoundCodec codec) {
  switch (codec) {
    case SoundCodec::kAac:
      return "aac";
    case SoundCodec::kAlaw:
      return "alaw";
    case SoundCodec::kMulaw:
      return "mulaw";
    case SoundCodec::kOpus:
      return "opus";
    case SoundCodec::kUnknown:
      break;
  }
  return "unknown";
}

bool isSound(const DB_STREAM& row) { return (row.frameSet & kFrameSetAudio) != 0; }

SoundCodec soundCodecOf(const DB_STREAM& row) {
  const uint16_t codec = row.frameSet & kCodecMask;
  return isSound(row) && codec <= kLastCodec ? static_cast<SoundCodec>(codec)
                                             : SoundCodec::kUnknown;
}

uint16_t frameSetOf(SoundCodec codec) {
  return static_cast<uint16_t>(kFrameSetAudio | static_cast<uint16_t>(codec));
}

}  // namespace tarn
