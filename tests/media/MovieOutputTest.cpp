#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "media/MediaInput.h"
#include "media/MediaOutput.h"
#include "media/MoviePieces.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

constexpr int64_t kSecond = 1000000;
constexpr char kMovie[] = "/tmp/gaps.mp4";

// Times of the pictures as a player reads them, counted from the first.
std::vector<int64_t> timesIn(const std::string& path) {
  std::string error;
  const auto input = tarn::MediaInput::open(
      path, 0, [] { return false; }, &error);
  std::vector<int64_t> times;
  if (input == nullptr) ADD_FAILURE() << error;
  tarn::MediaPicture picture;
  while (input != nullptr && input->next(&picture) == tarn::MediaInput::Result::kPicture)
    times.push_back(picture.presentationUs);
  return times;
}

// Writes key pictures of these times; "" when that went well.
std::string write(const std::vector<int64_t>& times, int64_t longestGapUs) {
  std::string error;
  const auto output = tarn::MediaOutput::create(kMovie, true, &error, 1, longestGapUs);
  if (output == nullptr) return error;
  for (const int64_t time : times) {
    if (!output->write(pictureAt(time, true))) return output->error();
  }
  return output->finish() ? "" : output->error();
}

TEST(MovieOutput, TimesStayTrueBehindGapsOfAnyLength) {
  for (const int64_t gap : {29 * 60 * kSecond, 31 * 60 * kSecond, 40 * 60 * kSecond,
                            86400 * kSecond, 40 * 86400 * kSecond}) {
    const std::vector<int64_t> times = {0, 40000, 80000, gap + 80000, gap + 120001, gap + 160000};
    ASSERT_EQ(write(times, gap), "");
    EXPECT_EQ(timesIn(kMovie), times) << gap;
    unlink(kMovie);
  }
}

TEST(MovieOutput, AGapThatNobodyToldOfIsAnErrorAndNoWrongTime) {
  EXPECT_THAT(write({0, 40000, 36 * 60 * kSecond}, 0), testing::HasSubstr("a gap is longer than"));
  EXPECT_NE(access(kMovie, F_OK), 0);
}

TEST(MovieOutput, AFlushThatASignalInterruptsIsMadeAgain) {
  IoFaults faults(std::string(kMovie) + ".part");
  faults.fail(Call::Fsync, 1, EINTR, 2);
  EXPECT_EQ(write({0, 40000}, 0), "");
  EXPECT_EQ(faults.count(Call::Fsync), 3u);
  unlink(kMovie);
}

}  // namespace
}  // namespace tarn_test
