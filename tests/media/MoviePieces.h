#pragma once

#include <iterator>

#include "media/MediaOutput.h"

namespace tarn_test {

// What movies of tests are made of; times are counted from this moment.
constexpr int64_t kWall = int64_t{1700000000} * 1000000 + 123456;

// A picture of 64 by 48; a key picture has its parameter sets.
inline tarn::OutputPicture pictureAt(int64_t us, bool key, int32_t decodeOffsetUs = 0) {
  tarn::OutputPicture picture;
  picture.key = key;
  picture.presentation = tarn::PictureTime::fromMicros(kWall + us);
  picture.decodeOffsetUs = decodeOffsetUs;
  if (key)
    picture.annexB = {0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xc0, 0x0a, 0xda, 0x11, 0xec,
                      0x04, 0x40, 0x00, 0x00, 0x03, 0x00, 0x40, 0x00, 0x00, 0x03, 0x00,
                      0x83, 0xc4, 0x89, 0xa8, 0x00, 0x00, 0x00, 0x01, 0x68, 0xce, 0x0f,
                      0xc8, 0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x3a};
  else
    picture.annexB = {0x00, 0x00, 0x00, 0x01, 0x41, 0x9a};
  for (int shift = 0; shift < 42; shift += 7)
    picture.annexB.push_back(static_cast<uint8_t>(0x80 | (us >> shift & 0x7F)));
  return picture;
}

// The same of 32 by 32.
inline tarn::OutputPicture smallPictureAt(int64_t us, bool key) {
  constexpr size_t kWhole = 26;  // a start code and the sequence parameter set
  tarn::OutputPicture picture = pictureAt(us, key);
  if (!key) return picture;
  picture.annexB.erase(picture.annexB.begin(), picture.annexB.begin() + kWhole);
  const uint8_t other[] = {0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xc0, 0x0a, 0xda, 0x25, 0x90};
  picture.annexB.insert(picture.annexB.begin(), std::begin(other), std::end(other));
  return picture;
}

inline tarn::OutputSound soundAt(int64_t us, tarn::SoundCodec codec = tarn::SoundCodec::kAac) {
  tarn::OutputSound sound;
  const bool aac = codec == tarn::SoundCodec::kAac;
  sound.format = aac ? tarn::SoundFormat{codec, 1, 16000, {0x14, 0x08}}
                     : tarn::SoundFormat{codec, 1, 8000, {}};
  sound.samples = aac ? 1024 : 320;
  sound.frame.assign(aac ? 20 : 320, 0x21);
  sound.time = tarn::PictureTime::fromMicros(kWall + us);
  return sound;
}

}  // namespace tarn_test
