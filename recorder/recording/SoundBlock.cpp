#include "recorder/recording/SoundBlock.h"

#include <cstring>

#include "base/Endian.h"
#include "recorder/recording/SoundBlockFormat.h"

namespace tarn {

bool SoundBlock::readStart(const void* head, PictureTime* start) {
  const auto* bytes = static_cast<const uint8_t*>(head);
  *start = {getLe32(bytes + kSoundSecondsOff), getLe32(bytes + kSoundMicrosOff)};
  return memcmp(bytes, kSoundMark, sizeof kSoundMark) == 0 &&
         bytes[kSoundVersionOff] == kSoundVersion && start->micros < 1000000;
}

PictureTime SoundBlock::after(uint64_t samples) const {
  return PictureTime::fromMicros(start_.totalMicros() +
                                 microsOfSamples(samples, format_.sampleRate));
}

PictureTime SoundBlock::end() const { return frames_.empty() ? start_ : after(samples_); }

bool SoundBlock::decode(const void* block, size_t size) {
  frames_.clear();
  samples_ = 0;
  const auto* bytes = static_cast<const uint8_t*>(block);
  if (size < kHeadSize || !readStart(block, &start_)) return false;
  const size_t configSize = bytes[kSoundConfigSizeOff];
  const uint32_t count = getLe16(bytes + kSoundFramesOff);
  format_.codec = static_cast<SoundCodec>(bytes[kSoundCodecOff]);
  format_.channels = bytes[kSoundChannelsOff];
  format_.sampleRate = getLe32(bytes + kSoundRateOff);
  if (size - kHeadSize < configSize || format_.sampleRate == 0 || format_.channels == 0)
    return false;
  size_t at = kHeadSize + configSize;
  format_.config.assign(bytes + kHeadSize, bytes + at);
  for (uint32_t i = 0; i < count; ++i) {
    const bool head = size - at >= kSoundFrameHeadSize;
    const uint32_t length = head ? getLe16(bytes + at + kSoundFrameSizeOff) : 0;
    if (!head || length > size - at - kSoundFrameHeadSize) {
      frames_.clear();
      return false;
    }
    const uint32_t samples = getLe16(bytes + at + kSoundFrameSamplesOff);
    frames_.push_back({bytes + at + kSoundFrameHeadSize, length, samples, after(samples_)});
    samples_ += samples;
    at += kSoundFrameHeadSize + length;
  }
  if (at == size && count > 0) return true;
  frames_.clear();
  return false;
}

}  // namespace tarn
