#include <functional>
#include <memory>
#include <new>
#include <string_view>

#include "recorder/CheckRig.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/ComposedVolume.h"
#include "recorder/card/TimeText.h"
#include "recorder/check/CardCheck.h"
#include "recorder/log/LogFormat.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/session/RecordingStatus.h"
#include "recorder/session/StatusTeller.h"
#include "recorder/session/WearCauses.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

// Memory that runs out inside the recorder is an error, never an exception, and loses nothing.
class MemoryFaults : public CheckRig {
 protected:
  void SetUp() override {
    if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
    CheckRig::SetUp();
  }

  // `work` gives false when it reports a failure.
  static void failEach(const char* name, int most, int step, const std::function<bool()>& work) {
    int failures = 0;
    for (int n = 1; n < most; n += step) {
      bool done = true;
      {
        const AllocationFault fault(1, n);
        EXPECT_NO_THROW(done = work()) << name << " " << n;
      }
      if (!done) ++failures;
    }
    EXPECT_GT(failures, 0) << name;
    EXPECT_TRUE(work()) << name;
  }
};

TEST_F(MemoryFaults, NoPublicOperationThrowsWhenMemoryRunsOut) {
  failEach("info", 60, 3, [] {
    std::string error;
    return tarn::CardInfo().read(kCardPath, &error) == 0;
  });
  failEach("check", 200, 23, [] {
    std::string error;
    return tarn::CardCheck().run(kCardPath, {}, &error) == 0;
  });
  failEach("geometry", 60, 3, [] { return tarn::CardGeometry::verifyRecorder().ok(); });
  failEach("setup", 30, 7, [] {
    std::string error;
    return tarn::DatabaseSetup::check(tarn::DatabaseSetup::defaultPath(), &error);
  });
  const uint32_t key = allStreams().at(0).streamID;
  failEach("reader", 60, 13, [key] {
    tarn::RecordingReader reader;
    tarn::PictureEntry entry;
    Bytes bytes;
    return reader.open(key) == 0 && reader.picture(0, &entry) && reader.readPicture(entry, &bytes);
  });
  failEach("rows", 3, 1, [] {
    std::vector<DB_STREAM> rows;
    return tarn::streamsOfPeriod(0, 0xFFFFFFFF, 0, &rows);
  });
}

// Of one that is missing a copy is made without it, and counts as whole.
TEST_F(MemoryFaults, APictureThatThereIsNoMemoryForIsNotOneThatIsMissing) {
  tarn::RecordingReader reader;
  tarn::PictureEntry entry;
  ASSERT_EQ(reader.open(allStreams().at(0)), 0);
  ASSERT_TRUE(reader.picture(0, &entry));
  ASSERT_FALSE(reader.wasRefused() || reader.lackedMemory());
  {
    const AllocationFault fault(1, 1);
    Bytes bytes;
    ASSERT_FALSE(reader.readPicture(entry, &bytes));
    EXPECT_TRUE(reader.wasRefused() && reader.lackedMemory());
  }
  Bytes bytes;
  EXPECT_TRUE(reader.readPicture(entry, &bytes));
  EXPECT_FALSE(reader.wasRefused() || reader.lackedMemory());
}

TEST_F(MemoryFaults, ARecoveryWithoutMemoryIsMadeUpForByTheNext) {
  failEach("recovery", 400, 57, [] { return tarn::Recovery().run().ok(); });
  EXPECT_EQ(verifyAll().size(), size_t{3} * kPictures);
}

TEST_F(MemoryFaults, WhatGivesATextOrAListThrowsThatThereIsNoMemoryAndNothingElse) {
  const std::string status = tarn::statusText({}, 0);
  const std::function<size_t()> works[] = {
      [] { return tarn::TimeText::iso(1700000000, 250).size(); },
      [] { return tarn::logStamp(1700000000).size(); },
      [] {
        return tarn::logSplitText(std::string_view("a line of the log, longer than most")).size();
      },
      [] { return tarn::nameOfChunkFile(tarn::kFileStream, 12345).size(); },
      [] { return tarn::CardCheck().meaning().size(); },
      [] { return tarn::statusText({}, 0).size(); },
      [] { return tarn::toldStatuses().size(); },
      [] { return tarn::wearCauses(tarn::cardWear()).size(); }};
  for (const auto& work : works) {
    for (int n = 1; n < 12; ++n) {
      const AllocationFault fault(1, n);
      try {
        work();
      } catch (const std::bad_alloc&) {
      }
    }
  }
}

TEST_F(MemoryFaults, WhatOnlyLooksAtATextDoesNotThrow) {
  tarn::RecordingStatus told;
  told.process = 1;
  told.causes.push_back({"a-cause-with-a-name-that-is-not-short", 1, 1});
  const std::string text = tarn::statusText(told, 0);
  failEach("status", 6, 1, [&] {
    tarn::RecordingStatus status;
    return tarn::readStatus(text, 0, &status);
  });
  const std::string name = "a name of no chunk file that is not short";
  for (int n = 1; n < 4; ++n) {
    const AllocationFault fault(1, n);
    int type = 0;
    uint32_t chunk = 0;
    EXPECT_FALSE(tarn::isChunkFileName(name, &type, &chunk));
  }
}

TEST_F(MemoryFaults, WhoToldWhatIsWrittenLeavesInOrder) {
  for (int n = 1; n < 4; ++n) {
    const auto teller = std::make_unique<tarn::StatusTeller>();
    teller->tell(0);
    EXPECT_FALSE(tarn::toldStatuses().empty());
    const AllocationFault fault(1, n);
    teller->~StatusTeller();
    new (teller.get()) tarn::StatusTeller;
  }
  EXPECT_TRUE(tarn::toldStatuses().empty());
}

}  // namespace
}  // namespace tarn_test
