// Several recordings looked at at a time: the same findings as one after the other.
#include "recorder/CheckRig.h"
#include "support/IoFaults.h"

namespace {

using namespace tarn_test;
using tarn::FindingKind;

class RowsCheckTest : public CheckRig {
 protected:
  // More than wait for one in front of them, and more findings than are kept: none but the first
  // recordings' keys are those of the entries.
  std::vector<DB_STREAM> manyRows() const {
    std::vector<DB_STREAM> rows;
    for (uint32_t key = 1; key <= 260; ++key) {
      rows.push_back(rows_[(key - 1) % rows_.size()]);
      if (key > rows_.size()) rows.back().streamID = key;
      if (key % 7 == 0) rows.back().chunkID = 99;
      if (key % 11 == 0) rows.back().recSize = 0;
    }
    return rows;
  }

  int look(const std::vector<DB_STREAM>& rows, tarn::CardCheckOptions options, uint32_t threads) {
    options.threads = threads;
    return check_.runOn(kCardPath, rows, events(), options, &error_);
  }

  static std::vector<DB_EVENT> events() {
    std::vector<DB_EVENT> events(12);
    for (uint32_t i = 0; i < events.size(); ++i) {
      events[i].eventID = i + 1;
      events[i].startDate = kStart + i;
      events[i].endDate = kStart + i + 2;
    }
    return events;
  }

  // All that is found, in its order.
  std::string found() const {
    const tarn::CardFindings& findings = check_.findings();
    std::string all = tarn::meaningOfAll(findings, 0) + "\n";
    for (size_t i = 0; i < tarn::kFindingKinds; ++i) {
      all += std::to_string(findings.count(static_cast<FindingKind>(i))) + " ";
    }
    for (const tarn::CardFinding& finding : findings.list()) {
      all += "\n" + std::to_string(finding.streamID) + " " + std::to_string(finding.eventID) + " " +
             finding.text + "; " + finding.meaning;
    }
    return all + "\n" + std::to_string(check_.pictures());
  }

  std::string error_;
};

TEST_F(RowsCheckTest, AnyNumberOfThreadsFindsTheSameInTheSameOrder) {
  flip(chunkByte(tarn::kFileStream, rows_[0].chunkID, entryOf(rows_[0], 40).dataOffset + 500));
  flip(entryByte(rows_[1], 20));
  const std::vector<DB_STREAM> rows = manyRows();
  ASSERT_EQ(look(rows, {}, 1), 0) << error_;
  const std::string alone = found();
  const tarn::CardFindings& findings = check_.findings();
  ASSERT_GT(findings.count(FindingKind::kEntry), tarn::CardFindings::kKeptOfAKind);
  ASSERT_GT(findings.count(FindingKind::kData), 0u);
  ASSERT_NE(alone.find("affects event"), std::string::npos);
  for (const uint32_t threads : {2u, 5u, 0u}) {
    ASSERT_EQ(look(rows, {}, threads), 0) << error_;
    EXPECT_EQ(found(), alone) << threads << " threads";
  }
}

TEST_F(RowsCheckTest, WhatIsRefusedToOneThreadIsNotCalledDamaged) {
  IoFaults faults(kCardPath);
  for (const DB_STREAM& row : rows_) {
    const uint64_t at = chunkByte(tarn::kFileStream, row.chunkID, entryOf(row, 40).dataOffset);
    faults.failAt(Call::Pread, (at + 600) / 512 * 512, 512, EIO);
  }
  ASSERT_EQ(look(rows_, {}, 3), 0) << error_;
  EXPECT_EQ(check_.findings().count(FindingKind::kUnreadable), 3u) << found();
  EXPECT_EQ(check_.findings().total(), 3u) << found();
}

TEST_F(RowsCheckTest, ProgressIsToldByTheCallersThreadAloneAndStopsAllOfThem) {
  const auto caller = std::this_thread::get_id();
  tarn::CardCheckOptions options;
  uint64_t told = 0;
  options.progress = [&](uint64_t done, uint64_t total) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_LE(done, total);
    EXPECT_EQ(total, 260u);
    ++told;
    return false;
  };
  EXPECT_EQ(look(manyRows(), options, 4), -1);
  EXPECT_NE(error_.find("stopped before all recordings"), std::string::npos) << error_;
  EXPECT_EQ(told, 1u);
}

TEST_F(RowsCheckTest, NoRowsAreNoWork) {
  ASSERT_EQ(look({}, {}, 0), 0) << error_;
  EXPECT_EQ(check_.findings().total(), 0u);
}

}  // namespace
