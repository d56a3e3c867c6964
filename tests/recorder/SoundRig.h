#pragma once

#include <algorithm>
#include <vector>

#include "recorder/RecoveryRig.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/session/SoundSession.h"

namespace tarn_test {

// Sound of the test: AAC of 48 kHz, a frame of 1024 samples every 21,333 us or so.
inline tarn::SoundFormat soundFormat() {
  return {tarn::SoundCodec::kAac, 2, 48000, {0x11, 0x90, 0x56, 0xE5, 0x00}};
}
inline constexpr uint32_t kFrameSamples = 1024;

inline Bytes soundBytes(uint32_t number, size_t size = 170) {
  return patternBytes(size, number * 7 + 3);
}
inline tarn::PictureTime soundTime(uint32_t number) {
  return tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                       (int64_t{number} * kFrameSamples * 1000000 + 24000) / 48000);
}

inline testing::AssertionResult writeSound(tarn::SoundSession& session, uint32_t from, uint32_t to,
                                           size_t size = 170) {
  for (uint32_t i = from; i < to; ++i) {
    const Bytes frame = soundBytes(i, size);
    if (session.writeFrame(frame.data(), frame.size(), soundTime(i), kFrameSamples) == 0) continue;
    return testing::AssertionFailure() << "frame " << i << ": " << session.errorText();
  }
  return testing::AssertionSuccess();
}

inline testing::AssertionResult openSound(tarn::SoundSession& session,
                                          tarn::SoundOptions options = {}) {
  options.format = soundFormat();
  if (session.open(options) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << session.errorText();
}

inline std::vector<DB_STREAM> rowsOfSound() {
  std::vector<DB_STREAM> rows = allStreams();
  rows.erase(std::remove_if(rows.begin(), rows.end(),
                            [](const DB_STREAM& row) { return !tarn::isSound(row); }),
             rows.end());
  return rows;
}
inline std::vector<DB_STREAM> rowsOfVideo() {
  std::vector<DB_STREAM> rows = allStreams();
  rows.erase(std::remove_if(rows.begin(), rows.end(), tarn::isSound), rows.end());
  return rows;
}

// Numbers of the frames that a row of sound holds; each must be one of the test, with its bytes,
// its time and the format.
inline std::vector<uint32_t> framesOf(const DB_STREAM& row, size_t size = 170) {
  std::vector<uint32_t> numbers;
  tarn::RecordingReader reader;
  EXPECT_EQ(reader.open(row), 0);
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    tarn::PictureEntry entry;
    Bytes bytes;
    tarn::SoundBlock block;
    EXPECT_TRUE(reader.picture(i, &entry) && reader.readPicture(entry, &bytes)) << i;
    EXPECT_FALSE(reader.isDamaged());
    if (!block.decode(bytes.data(), bytes.size())) {
      ADD_FAILURE() << "entry " << i << " of row " << row.streamID << " is no block";
      continue;
    }
    EXPECT_TRUE(block.format() == soundFormat());
    EXPECT_TRUE(entry.isKey());
    EXPECT_EQ(block.start().totalMicros(), entry.presentation.totalMicros());
    for (const tarn::SoundFrame& frame : block.frames()) {
      const int64_t since = frame.time.totalMicros() - int64_t{kStart} * 1000000;
      const auto number = static_cast<uint32_t>((since * 48000 / 1000000 + 512) / kFrameSamples);
      numbers.push_back(number);
      EXPECT_EQ(Bytes(frame.data, frame.data + frame.size), soundBytes(number, size));
      EXPECT_NEAR(static_cast<double>(frame.time.totalMicros()),
                  static_cast<double>(soundTime(number).totalMicros()), 2);
      EXPECT_EQ(frame.samples, kFrameSamples);
    }
  }
  return numbers;
}
inline std::vector<uint32_t> allFrames(size_t size = 170) {
  std::vector<uint32_t> numbers;
  for (const DB_STREAM& row : rowsOfSound()) {
    for (const uint32_t number : framesOf(row, size)) numbers.push_back(number);
  }
  return numbers;
}

}  // namespace tarn_test
