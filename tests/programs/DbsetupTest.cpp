// dbsetup as the start-up code runs it: by its fixed path, judged by its exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "db/CApiDb.h"

namespace {

struct Outcome {
  int status;
  std::string output;  // both streams
};

Outcome run(const std::string& arguments) {
  FILE* pipe = popen(("{ " + arguments + "; } 2>&1").c_str(), "r");
  std::string output;
  char buffer[512];
  size_t got;
  while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, got);
  const int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

constexpr char kDbsetup[] = "/usr/local/bin/dbsetup ";
constexpr char kStartUp[] = "/usr/local/bin/dbsetup init; /usr/local/bin/dbsetup start";

uint32_t eventCount() {
  CApiDb db;
  db.setSql("SELECT COUNT(*) FROM EVENT");
  return db.getValue(0, 0);
}

TEST(Dbsetup, StartUpMakesAnEmptyDatabase) {
  const Outcome outcome = run(kStartUp);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.output);
  CApiDb db;
  db.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 1 )");
  db.finish();
  EXPECT_EQ(1u, eventCount());
  EXPECT_EQ(0, run(std::string(kDbsetup) + "start").status);
  EXPECT_EQ(1u, eventCount());
  EXPECT_EQ(0, run(kStartUp).status);
  EXPECT_EQ(0u, eventCount());
}

TEST(Dbsetup, StartWithoutInitFails) {
  const Outcome outcome = run(std::string(kDbsetup) + "start");
  EXPECT_EQ(1, outcome.status);
  EXPECT_EQ("dbsetup start: no database at /tmp/DB.dat: No such file or directory\n",
            outcome.output);
}

TEST(Dbsetup, OldDatabaseDoesNotPassForAFreshOneWhenInitFails) {
  ASSERT_EQ(0, run(kStartUp).status);
  ASSERT_EQ(0, mkdir("/tmp/DB.dat-journal", 0755));
  const Outcome outcome = run(kStartUp);
  EXPECT_EQ(1, outcome.status);
  EXPECT_THAT(outcome.output, testing::StartsWith("dbsetup init: cannot remove "));
  EXPECT_THAT(outcome.output, testing::HasSubstr("\ndbsetup start: no database at /tmp/DB.dat"));
}

TEST(Dbsetup, HelpAndVersionGoToStandardOutput) {
  const Outcome help = run(std::string(kDbsetup) + "--help 2>/dev/null");
  EXPECT_EQ(0, help.status);
  EXPECT_THAT(help.output, testing::StartsWith("Usage: dbsetup init|start\n"));
  const Outcome version = run(std::string(kDbsetup) + "--version 2>/dev/null");
  EXPECT_EQ(0, version.status);
  EXPECT_THAT(version.output, testing::MatchesRegex("dbsetup [0-9.]+\n"));
  EXPECT_EQ(1, run(std::string(kDbsetup) + "--help >/dev/full").status);
}

TEST(Dbsetup, WrongUsageIsToldApartFromFailure) {
  for (const char* arguments : {"", "stop", "init start", "--what"}) {
    const Outcome outcome = run(std::string(kDbsetup) + arguments);
    EXPECT_EQ(2, outcome.status) << arguments;
    EXPECT_THAT(outcome.output, testing::EndsWith("; see dbsetup --help\n"));
  }
  EXPECT_NE(0, access("/tmp/DB.dat", F_OK));
}

}  // namespace
