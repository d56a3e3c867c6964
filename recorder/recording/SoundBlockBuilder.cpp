#include "recorder/recording/SoundBlockBuilder.h"

#include <cstdlib>
#include <cstring>

#include "base/Endian.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundBlockFormat.h"

namespace tarn {

int64_t SoundBlockBuilder::micros() const {
  return isEmpty() ? 0 : microsOfSamples(samples_, format_.sampleRate);
}

size_t SoundBlockBuilder::sizeWith(size_t frame) const {
  const size_t before = isEmpty() ? SoundBlock::kHeadSize + format_.config.size() : bytes_.size();
  return before + kSoundFrameHeadSize + frame;
}

// Stamps may be rounded to milliseconds, and a live clock is corrected by little; a frame that is
// missing is more.
bool SoundBlockBuilder::continues(PictureTime time, uint32_t samples) const {
  if (frames_ >= kMostSoundFrames) return false;
  const int64_t away = time.totalMicros() - start_.totalMicros() - micros();
  return std::llabs(away) <= microsOfSamples(samples, format_.sampleRate) / 4;
}

void SoundBlockBuilder::add(const void* frame, size_t size, uint32_t samples, PictureTime time) {
  if (isEmpty()) {
    bytes_.assign(SoundBlock::kHeadSize, 0);
    start_ = time;
    memcpy(bytes_.data(), kSoundMark, sizeof kSoundMark);
    bytes_[kSoundVersionOff] = kSoundVersion;
    bytes_[kSoundCodecOff] = static_cast<uint8_t>(format_.codec);
    bytes_[kSoundChannelsOff] = format_.channels;
    bytes_[kSoundConfigSizeOff] = static_cast<uint8_t>(format_.config.size());
    putLe32(bytes_.data() + kSoundRateOff, format_.sampleRate);
    putLe32(bytes_.data() + kSoundSecondsOff, time.seconds);
    putLe32(bytes_.data() + kSoundMicrosOff, time.micros);
    bytes_.insert(bytes_.end(), format_.config.begin(), format_.config.end());
  }
  const size_t at = bytes_.size();
  bytes_.resize(at + kSoundFrameHeadSize);
  putLe16(bytes_.data() + at + kSoundFrameSizeOff, static_cast<uint16_t>(size));
  putLe16(bytes_.data() + at + kSoundFrameSamplesOff, static_cast<uint16_t>(samples));
  const auto* data = static_cast<const uint8_t*>(frame);
  bytes_.insert(bytes_.end(), data, data + size);
  samples_ += samples;
  ++frames_;
}

const std::vector<uint8_t>& SoundBlockBuilder::bytes() {
  if (!isEmpty()) {
    putLe16(bytes_.data() + kSoundFramesOff, static_cast<uint16_t>(frames_));
    putLe16(bytes_.data() + kSoundReservedOff, 0);
  }
  return bytes_;
}

void SoundBlockBuilder::clear() {
  bytes_.clear();
  frames_ = 0;
  samples_ = 0;
}

}  // namespace tarn
