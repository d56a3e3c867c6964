#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "recorder/session/RecordingStatus.h"
#include "recorder/session/StatusTeller.h"
#include "recorder/session/WearCauses.h"

namespace tarn_test {
namespace {

using tarn::FlushTimes;
using tarn::RecordingStatus;

RecordingStatus example() {
  RecordingStatus status;
  status.process = 4711;
  status.causes = {{"data", uint64_t{1} << 40, 7}, {"log", 0, 0}};
  status.flushes.add(1000);
  status.flushes.add(1001);
  status.flushes.add(9000000);
  status.failed = 2;
  return status;
}

TEST(RecordingStatus, WhatIsToldIsReadAgain) {
  RecordingStatus read;
  ASSERT_TRUE(tarn::readStatus(tarn::statusText(example(), 50000), 50900, &read));
  EXPECT_EQ(read.process, 4711);
  EXPECT_EQ(read.failed, 2u);
  ASSERT_EQ(read.causes.size(), 2u);
  EXPECT_EQ(read.causes[0].name, "data");
  EXPECT_EQ(read.causes[0].bytes, uint64_t{1} << 40);
  EXPECT_EQ(read.causes[0].flushes, 7u);
  EXPECT_EQ(read.flushes.counts[0], 1u) << "a millisecond";
  EXPECT_EQ(read.flushes.counts[1], 1u) << "more than that";
  EXPECT_EQ(read.flushes.counts[FlushTimes::kClasses - 1], 1u) << "all the rest";
  EXPECT_EQ(read.flushes.allUs, 9002001);
}

TEST(RecordingStatus, AnOldOneAHalfOneAndAnyOtherTextAreNone) {
  RecordingStatus read;
  const std::string text = tarn::statusText(example(), 50000);
  EXPECT_FALSE(tarn::readStatus(text, 60001, &read)) << "its process does not tell any more";
  EXPECT_FALSE(tarn::readStatus(text, 49999, &read)) << "of a machine that ran before";
  for (size_t size = 0; size + 1 < text.size(); ++size)
    EXPECT_FALSE(tarn::readStatus(text.substr(0, size), 50000, &read)) << size;
  EXPECT_FALSE(tarn::readStatus("tarn-status 2" + text.substr(13), 50000, &read));
  EXPECT_FALSE(tarn::readStatus("tarn-status 1\n50000\n1\n0\n4000000000\n", 50000, &read));
}

TEST(RecordingStatus, AProcessTellsItsOwnAndTakesItAway) {
  const std::string planted = "/tmp/tarn-status-" + std::to_string(getpid());
  std::ofstream("/tmp/tarn-status-other") << "nothing of the kind";
  ASSERT_EQ(mkfifo("/tmp/tarn-status-pipe", 0600), 0);  // nobody waits for what it never says
  std::ofstream("/tmp/kept") << "kept";
  ASSERT_EQ(symlink("/tmp/kept", ("/tmp/.tarn-status-" + std::to_string(getpid())).c_str()), 0);
  {
    tarn::StatusTeller teller;
    EXPECT_TRUE(tarn::toldStatuses().empty());
    teller.tell(1);
    teller.tell(2);
    const auto told = tarn::toldStatuses();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].process, getpid());
    EXPECT_EQ(told[0].failed, 1u) << "once a second is enough";
    EXPECT_EQ(told[0].causes.size(), tarn::wearCauses(tarn::cardWear()).size());
  }
  EXPECT_TRUE(tarn::toldStatuses().empty());
  EXPECT_NE(access(planted.c_str(), F_OK), 0);
  std::string kept;
  std::ifstream("/tmp/kept") >> kept;
  EXPECT_EQ(kept, "kept") << "somebody else's file";
  for (const char* path : {"/tmp/tarn-status-other", "/tmp/tarn-status-pipe", "/tmp/kept"})
    EXPECT_EQ(unlink(path), 0);
}

}  // namespace
}  // namespace tarn_test
