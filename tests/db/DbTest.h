#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "db/DbTrace.h"
#include "recorder/rows/DatabaseSetup.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

inline constexpr char kDbPath[] = "/tmp/DB.dat";

// An empty database at its place, the gateway unconnected, the journal's stand-in as new.
class DbTest : public testing::Test {
 protected:
  DbTest() {
    std::string error;
    EXPECT_TRUE(tarn::DatabaseSetup::createEmpty(kDbPath, &error)) << error;
    fakeJournal() = FakeJournal();
  }

  // Inserts a row by plain SQL; values in column order, the key included.
  static void addEvent(uint32_t id, unsigned extTrg, uint32_t start, uint32_t end) {
    const std::vector<std::string> rows =
        rowsOf("INSERT INTO EVENT VALUES( " + std::to_string(id) + ", " + std::to_string(extTrg) +
               ", 5, " + std::to_string(start) + ", " + std::to_string(end) + ", 10, 20, 32 )");
    EXPECT_THAT(rows, testing::IsEmpty());
  }
  static void addStream(uint32_t id, unsigned inTrg, uint32_t start, uint32_t end) {
    const std::vector<std::string> rows =
        rowsOf("INSERT INTO STREAM VALUES( " + std::to_string(id) + ", " + std::to_string(inTrg) +
               ", 2, 3, 4, 5, 6, 7, 8, " + std::to_string(start) + ", " + std::to_string(end) +
               ", 11, 12, 64 )");
    EXPECT_THAT(rows, testing::IsEmpty());
  }

  static std::vector<uint32_t> keys(const DB_EVENT* events, size_t count) {
    std::vector<uint32_t> result;
    for (size_t i = 0; i < count; ++i) result.push_back(events[i].eventID);
    return result;
  }
  static std::vector<uint32_t> keys(const DB_STREAM* streams, size_t count) {
    std::vector<uint32_t> result;
    for (size_t i = 0; i < count; ++i) result.push_back(streams[i].streamID);
    return result;
  }

  CApiDb db_;
};

}  // namespace tarn_test
