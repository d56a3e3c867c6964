#pragma once

#include <cstddef>
#include <cstdint>

// The bytes of a block of sound, little-endian, for whoever makes one or takes one apart.
namespace tarn {

// Head of a block                                      off size
inline constexpr uint8_t kSoundMark[] = {'T', 'S', 'N', 'D'};  //  0  4
inline constexpr size_t kSoundVersionOff = 4;                  //  4  1  1
inline constexpr size_t kSoundCodecOff = 5;                    //  5  1  SoundCodec
inline constexpr size_t kSoundChannelsOff = 6;                 //  6  1
inline constexpr size_t kSoundConfigSizeOff = 7;               //  7  1  bytes of the configuration
inline constexpr size_t kSoundRateOff = 8;                     //  8  4  samples a second
inline constexpr size_t kSoundSecondsOff = 12;                 // 12  4  when the first frame begins
inline constexpr size_t kSoundMicrosOff = 16;                  // 16  4  0-999,999
inline constexpr size_t kSoundFramesOff = 20;                  // 20  2  number of frames, 1 or more
inline constexpr size_t kSoundReservedOff = 22;                // 22  2  0
// 24 (SoundBlock::kHeadSize): the configuration, then the frames
// A frame
inline constexpr size_t kSoundFrameSizeOff = 0;     //  0  2  bytes
inline constexpr size_t kSoundFrameSamplesOff = 2;  //  2  2  length in samples
inline constexpr size_t kSoundFrameHeadSize = 4;    //  4     the frame's bytes
inline constexpr uint8_t kSoundVersion = 1;
inline constexpr uint32_t kMostSoundFrames = 0xFFFF;

// Rounded, so that frames whose lengths are no whole microseconds do not drift.
inline int64_t microsOfSamples(uint64_t samples, uint32_t rate) {
  return static_cast<int64_t>((samples * 1000000 + rate / 2) / rate);
}

}  // namespace tarn
