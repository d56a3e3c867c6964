#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "media/MoviePieces.h"
#include "media/archive/ArchiveFollower.h"
#include "media/archive/RecordedPictures.h"
#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kPlace[] = "/tmp/archive";
constexpr char kAway[] = "/tmp/away";

// Follows a session that records, look by look.
class ArchiveFollowerTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(kPlace, 0777), 0);
    ASSERT_TRUE(openSession(session));
    record(0, 30);
  }
  void record(uint32_t from, uint32_t to) {
    writePictures(&session, from, to);
    ASSERT_EQ(session.flush(), 0);
  }
  uint32_t beginEvent(uint32_t picture) {
    return session.beginEvent(7, pictureAt(picture * 40000, false).presentation, 0);
  }
  void endEvent(uint32_t key, uint32_t picture) {
    ASSERT_EQ(session.endEvent(key, pictureAt(picture * 40000, false).presentation), 0);
  }
  static tarn::CardArchiver::Settings settings() {
    tarn::CardArchiver::Settings settings;
    settings.place = kPlace;
    settings.recorder = "van-7";
    return settings;
  }
  void look(int64_t atMs) { follower.step(atMs, nullptr); }
  static std::vector<std::string> clips() {
    std::vector<std::string> names;
    for (const auto& one : std::filesystem::recursive_directory_iterator(kPlace)) {
      if (one.path().extension() == ".mp4") names.push_back(one.path().filename());
    }
    return names;
  }

  std::string said() const {
    std::string text;
    for (const LogLine& line : log.lines()) text += line.text + "\n";
    return text;
  }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
  tarn::RecordingSession session;
  tarn::ArchiveFollower follower{settings(), 900};
};

TEST_F(ArchiveFollowerTest, EventIsArchivedWhenItsTimeIsOnTheCardThoughAllElseIsNotDueYet) {
  look(0);  // archives all there is: nothing that is over
  const uint32_t key = beginEvent(25);
  look(1000);
  endEvent(key, 35);
  look(2000);
  EXPECT_THAT(clips(), IsEmpty()) << "its last pictures are yet to come";
  record(30, 60);
  look(3000);
  ASSERT_THAT(clips(), SizeIs(1));
  EXPECT_THAT(clips()[0], HasSubstr("-e" + std::to_string(key) + "."));
  EXPECT_THAT(said(), HasSubstr("event " + std::to_string(key) + " is archived"));
  ASSERT_EQ(session.close(), 0);
  look(4000);
  EXPECT_THAT(clips(), SizeIs(1)) << "a recording waits for its turn";
  look(900000);
  EXPECT_THAT(clips(), SizeIs(2));
}

TEST_F(ArchiveFollowerTest, EventThatWasNotOverAtTheFirstRunIsNotForgotten) {
  const uint32_t key = beginEvent(25);
  endEvent(key, 35);
  look(0);
  EXPECT_THAT(clips(), IsEmpty());
  record(30, 60);
  look(1000);
  EXPECT_THAT(clips(), SizeIs(1));
}

TEST_F(ArchiveFollowerTest, PlaceThatIsAwayIsToldOnceAndAskedAgain) {
  look(0);
  const uint32_t key = beginEvent(10);
  endEvent(key, 15);
  ASSERT_EQ(rename(kPlace, kAway), 0);
  look(1000);
  EXPECT_THAT(said(), HasSubstr("CardArchiver: there is no directory /tmp/archive"));
  const size_t told = said().size();
  look(2000);
  look(7000);
  EXPECT_EQ(said().size(), told) << "once";
  ASSERT_EQ(rename(kAway, kPlace), 0);
  look(13000);
  EXPECT_THAT(clips(), SizeIs(1));
}

TEST_F(ArchiveFollowerTest, EventsThatWereOverAtItsStartAreArchivedWithAllElse) {
  const uint32_t key = beginEvent(10);
  endEvent(key, 15);
  ASSERT_EQ(session.close(), 0);
  look(0);
  EXPECT_THAT(clips(), SizeIs(2));
  EXPECT_THAT(said(), Not(HasSubstr("is archived, ")));
}

}  // namespace
}  // namespace tarn_test
