#pragma once

#include <gtest/gtest.h>

#include "media/MoviePieces.h"
#include "recorder/session/RecordingSession.h"

namespace tarn_test {

// Pictures from `from` on, in front of `to`, 25 a second, each tenth one a key picture; of 64 by
// 48, or the small ones.
inline void writePictures(tarn::RecordingSession* session, uint32_t from, uint32_t to,
                          bool small = false) {
  for (uint32_t i = from; i < to; ++i) {
    const bool key = i % 10 == 0;
    const tarn::OutputPicture one =
        small ? smallPictureAt(i * 40000, key) : pictureAt(i * 40000, key);
    ASSERT_EQ(
        session->writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, one.key),
        0)
        << session->errorText();
  }
}

}  // namespace tarn_test
