#include <gtest/gtest.h>

#include "media/serve/PieceNames.h"

namespace tarn_test {
namespace {

using tarn::InitPlace;
using tarn::nameOf;
using tarn::PiecePlace;
using tarn::readName;

TEST(PieceNames, EveryNameThatIsGivenIsReadAsWhatItNames) {
  for (const uint32_t streamID : {1u, 4294967295u}) {
    for (const uint32_t format : {0u, 450u}) {
      for (const uint32_t soundID : {0u, 34u}) {
        InitPlace init;
        ASSERT_TRUE(readName(nameOf(InitPlace{streamID, format, soundID}), &init));
        EXPECT_EQ(init, (InitPlace{streamID, format, soundID}));
        for (const bool keysOnly : {false, true}) {
          PiecePlace piece;
          const PiecePlace asked = {streamID, 7, 50, format, soundID, keysOnly, false};
          ASSERT_TRUE(readName(nameOf(asked), &piece)) << nameOf(asked);
          EXPECT_EQ(nameOf(piece), nameOf(asked));
          EXPECT_EQ(piece.format, format);
          EXPECT_EQ(piece.soundID, soundID);
          EXPECT_EQ(piece.keysOnly, keysOnly);
        }
      }
    }
  }
  InitPlace init;
  ASSERT_TRUE(readName(nameOf(InitPlace{0, 0, 34}), &init));
  EXPECT_EQ(init, (InitPlace{0, 0, 34}));
  PiecePlace piece;
  ASSERT_TRUE(readName(nameOf(PiecePlace{34, 0, 4, 0, 0, false, true}), &piece));
  EXPECT_TRUE(piece.sound);
  EXPECT_EQ(piece.streamID, 34u);
  EXPECT_EQ(piece.count, 4u);
}

TEST(PieceNames, OthersAreNone) {
  InitPlace init;
  PiecePlace piece;
  for (const char* name : {"", ".mp4", "init-.mp4", "init-0.mp4", "init-1", "init-1-f0.mp4",
                           "init-1-s.mp4", "init-1-s2-f3.mp4", "init-1-f2-f3.mp4", "sound-.mp4",
                           "init-4294967296.mp4", "init--1.mp4", "sound-1-s2.mp4"})
    EXPECT_FALSE(readName(name, &init)) << name;
  for (const char* name :
       {"", ".m4s", "1.m4s", "1-2.m4s", "1-2-0.m4s", "1-2-3", "1-2-3-k-k.m4s", "1-2-3-f0.m4s",
        "1-2-3-s4-f5.m4s", "-1-2-3.m4s", "1--2-3.m4s", "1-2-3-.m4s", "sound-1-2-3-s4.m4s",
        "sound-1-2-3-k.m4s", "sound-sound-1-2-3.m4s", "1-2-4294967296.m4s"})
    EXPECT_FALSE(readName(name, &piece)) << name;
}

}  // namespace
}  // namespace tarn_test
