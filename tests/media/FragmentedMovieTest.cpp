#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "media/FragmentedMovie.h"
#include "media/MediaInput.h"
#include "media/MoviePieces.h"

namespace tarn_test {
namespace {

using Bytes = std::vector<uint8_t>;
using tarn::FragmentedMovie;

constexpr int64_t kHour = int64_t{3600} * 1000000;

uint64_t number(const Bytes& bytes, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) value = value << 8 | bytes.at(at + i);
  return value;
}

struct Box {
  std::string type;
  size_t begin;  // of its contents
  size_t end;
};

std::vector<Box> boxesIn(const Bytes& bytes, size_t at, size_t end) {
  std::vector<Box> boxes;
  while (at + 8 <= end) {
    const auto size = static_cast<size_t>(number(bytes, at, 4));
    if (size < 8 || size > end - at) break;
    boxes.push_back({std::string(bytes.begin() + static_cast<long>(at) + 4,
                                 bytes.begin() + static_cast<long>(at) + 8),
                     at + 8, at + size});
    at += size;
  }
  EXPECT_EQ(at, end) << "boxes fill what holds them";
  return boxes;
}
std::vector<Box> boxesOf(const Bytes& bytes) { return boxesIn(bytes, 0, bytes.size()); }

std::string typesOf(const Bytes& bytes) {
  std::string types;
  for (const Box& box : boxesOf(bytes)) types += box.type + " ";
  return types;
}

// A track in a fragment.
struct Run {
  uint64_t track;
  uint64_t decode;  // of its first piece
  uint64_t pieces;
};

std::vector<std::vector<Run>> fragmentsOf(const Bytes& bytes) {
  std::vector<std::vector<Run>> fragments;
  for (const Box& moof : boxesOf(bytes)) {
    if (moof.type != "moof") continue;
    fragments.emplace_back();
    for (const Box& traf : boxesIn(bytes, moof.begin, moof.end)) {
      if (traf.type != "traf") continue;
      Run run{};
      bool timed = false;
      for (const Box& box : boxesIn(bytes, traf.begin, traf.end)) {
        if (box.type == "tfhd") {
          run.track = number(bytes, box.begin + 4, 4);
          EXPECT_EQ(number(bytes, box.begin, 4) & 0x020001, 0x020000u) << "counted from its moof";
        }
        if (box.type == "trun") run.pieces += number(bytes, box.begin + 4, 4);
        if (box.type != "tfdt") continue;
        run.decode = number(bytes, box.begin + 4, bytes.at(box.begin) == 1 ? 8 : 4);
        timed = true;
      }
      EXPECT_TRUE(timed);
      fragments.back().push_back(run);
    }
  }
  return fragments;
}

class FragmentedMovieTest : public testing::Test {
 protected:
  void open(FragmentedMovie* movie, const FragmentedMovie::Plan& plan = {}) {
    ASSERT_TRUE(movie->open(plan, [this](const uint8_t* data, size_t size) {
      out_.insert(out_.end(), data, data + size);
      return true;
    })) << movie->error();
  }
  Bytes taken() { return std::exchange(out_, {}); }

  // Times of the pictures as a player reads them, counted from the first.
  std::vector<int64_t> read(const Bytes& bytes, std::vector<Bytes>* pictures) {
    FILE* file = fopen("/tmp/movie.mp4", "we");
    EXPECT_EQ(fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    fclose(file);
    std::string error;
    const auto input = tarn::MediaInput::open(
        "/tmp/movie.mp4", 0, [] { return false; }, &error);
    std::vector<int64_t> times;
    if (input == nullptr) ADD_FAILURE() << error;
    tarn::MediaPicture picture;
    while (input != nullptr && input->next(&picture) == tarn::MediaInput::Result::kPicture) {
      times.push_back(picture.presentationUs);
      pictures->push_back(picture.annexB);
    }
    unlink("/tmp/movie.mp4");
    return times;
  }

  Bytes out_;
};

TEST_F(FragmentedMovieTest, BeginsWithAnInitPartThatHoldsNoPicture) {
  FragmentedMovie movie;
  open(&movie);
  const tarn::OutputPicture first = pictureAt(0, true);
  ASSERT_TRUE(movie.describe(0, first));
  ASSERT_TRUE(movie.begin()) << movie.error();
  EXPECT_EQ(typesOf(out_), "ftyp moov ");
  const Bytes init = taken();
  ASSERT_TRUE(movie.write(first));
  EXPECT_TRUE(out_.empty()) << "a fragment comes as a whole";
  ASSERT_TRUE(movie.finish()) << movie.error();
  EXPECT_EQ(typesOf(out_), "moof mdat ");
  EXPECT_EQ(movie.origin(), first.presentation);
}

TEST_F(FragmentedMovieTest, BeginsAFragmentAtEachKeyPictureAtItsTrueTime) {
  FragmentedMovie movie;
  open(&movie);
  std::vector<int64_t> times;
  std::vector<Bytes> pictures;
  // Uneven, then a gap of twenty hours, then a little unevenness over the edge of fragments.
  for (const int64_t begin : {int64_t{0}, int64_t{403000}, 20 * kHour, 20 * kHour + 417001})
    for (int64_t i = 0; i < 10; ++i) {
      times.push_back(begin + i * 40000 + i % 3);
      const tarn::OutputPicture picture = pictureAt(times.back(), i == 0);
      pictures.push_back(picture.annexB);
      ASSERT_TRUE(movie.write(picture)) << movie.error();
    }
  ASSERT_TRUE(movie.finish()) << movie.error();
  const auto fragments = fragmentsOf(out_);
  ASSERT_EQ(fragments.size(), 4u);
  for (size_t i = 0; i < fragments.size(); ++i) {
    ASSERT_EQ(fragments[i].size(), 1u);
    EXPECT_EQ(fragments[i][0].decode, static_cast<uint64_t>(times[10 * i]));
    EXPECT_EQ(fragments[i][0].pieces, 10u);
  }
  std::vector<Bytes> found;
  EXPECT_EQ(read(out_, &found), times);
  ASSERT_EQ(found.size(), pictures.size());
  for (size_t i = 0; i < found.size(); ++i)
    EXPECT_TRUE(std::equal(found[i].end() - 7, found[i].end(), pictures[i].end() - 7)) << i;
}

TEST_F(FragmentedMovieTest, CountsFromTheFirstDecodingWherePicturesAreReordered) {
  FragmentedMovie movie;
  open(&movie);
  ASSERT_TRUE(movie.write(pictureAt(0, true, -80000)));
  ASSERT_TRUE(movie.write(pictureAt(120000, false, -160000)));
  ASSERT_TRUE(movie.write(pictureAt(40000, false, -40000)));
  ASSERT_TRUE(movie.finish()) << movie.error();
  EXPECT_EQ(movie.origin().totalMicros(), kWall - 80000);
  EXPECT_EQ(fragmentsOf(out_).at(0).at(0).decode, 0u);
  std::vector<Bytes> found;
  EXPECT_EQ(read(out_, &found), (std::vector<int64_t>{0, 120000, 40000}));
}

TEST_F(FragmentedMovieTest, MakesTheSameSegmentAloneAsInTheWholeMovie) {
  FragmentedMovie::Plan plan;
  plan.origin = tarn::PictureTime::fromMicros(kWall - kHour);
  plan.tracks = 2;
  plan.fragments = FragmentedMovie::Fragments::kAsTold;
  const auto segment = [](FragmentedMovie* movie, int64_t from) {
    for (int64_t i = 0; i < 10; ++i) {
      ASSERT_TRUE(movie->write(pictureAt(from + i * 40000, i == 0), 0)) << movie->error();
      if (i >= 6) continue;
      ASSERT_TRUE(movie->write(soundAt(from + i * 64000), 1)) << movie->error();
    }
    ASSERT_TRUE(movie->endFragment()) << movie->error();
  };
  const auto begin = [this](FragmentedMovie* movie, const FragmentedMovie::Plan& how) {
    open(movie, how);
    ASSERT_TRUE(movie->describe(0, pictureAt(0, true)));
    ASSERT_TRUE(movie->describe(1, soundAt(0)));
    ASSERT_TRUE(movie->begin()) << movie->error();
  };
  FragmentedMovie whole;
  begin(&whole, plan);
  const Bytes init = taken();
  segment(&whole, 0);
  taken();
  segment(&whole, 3 * kHour);
  const Bytes second = taken();
  FragmentedMovie alone;
  plan.firstNumber = 2;
  begin(&alone, plan);
  EXPECT_EQ(taken(), init);
  segment(&alone, 3 * kHour);
  EXPECT_EQ(taken(), second);
  const auto runs = fragmentsOf(second);
  ASSERT_EQ(runs.size(), 1u);
  ASSERT_EQ(runs[0].size(), 2u);
  EXPECT_EQ(runs[0][0].decode, static_cast<uint64_t>(4 * kHour));
  EXPECT_EQ(runs[0][1].decode, uint64_t{4} * 3600 * 16000);
  EXPECT_EQ(runs[0][1].pieces, 6u);
}

TEST_F(FragmentedMovieTest, KeepsGapsOfSoundAsGapsInPlaceOfSilence) {
  for (const auto codec : {tarn::SoundCodec::kAac, tarn::SoundCodec::kAlaw}) {
    FragmentedMovie movie;
    FragmentedMovie::Plan plan;
    plan.quickTime = codec == tarn::SoundCodec::kAlaw;
    open(&movie, plan);
    ASSERT_TRUE(movie.describe(0, soundAt(0, codec)));
    const int64_t length = codec == tarn::SoundCodec::kAac ? 64000 : 40000;
    for (const int64_t begin : {int64_t{0}, 2 * kHour})
      for (int64_t i = 0; i < 10; ++i)
        ASSERT_TRUE(movie.write(soundAt(begin + i * length, codec), 0)) << movie.error();
    ASSERT_TRUE(movie.finish()) << movie.error();
    const Bytes bytes = taken();
    const auto fragments = fragmentsOf(bytes);
    ASSERT_EQ(fragments.size(), 2u);
    EXPECT_EQ(fragments[0][0].decode, 0u);
    EXPECT_EQ(fragments[1][0].decode, uint64_t{2} * 3600 * (plan.quickTime ? 8000 : 16000));
    EXPECT_LT(bytes.size(), 20000u);
  }
}

TEST_F(FragmentedMovieTest, RefusesWhatLiesBeforeItsBeginAndStopsWhereTheSinkDoes) {
  FragmentedMovie early;
  FragmentedMovie::Plan plan;
  plan.origin = tarn::PictureTime::fromMicros(kWall + 1);
  open(&early, plan);
  EXPECT_FALSE(early.write(pictureAt(0, true)));
  EXPECT_EQ(early.error(), "a piece is decoded before the beginning of the movie");
  FragmentedMovie refused;
  ASSERT_TRUE(refused.open({}, [](const uint8_t* /*data*/, size_t /*size*/) { return false; }));
  EXPECT_FALSE(refused.write(pictureAt(0, true)));
  EXPECT_EQ(refused.error(), "cannot begin the movie: Input/output error");
}

}  // namespace
}  // namespace tarn_test
