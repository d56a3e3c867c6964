#include <functional>

#include "recorder/CheckRig.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/DatabaseSetup.h"
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

TEST_F(MemoryFaults, ARecoveryWithoutMemoryIsMadeUpForByTheNext) {
  failEach("recovery", 400, 57, [] { return tarn::Recovery().run().ok(); });
  EXPECT_EQ(verifyAll().size(), size_t{3} * kPictures);
}

}  // namespace
}  // namespace tarn_test
