#pragma once

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "mesg/CMesgServer.h"
#include "support/RawClient.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

inline constexpr char kSocketPath[] = "/tmp/mesg-test";

// A server on kSocketPath with its log, and the means to have clients accepted one after another.
class ServerTest : public testing::Test {
 protected:
  void serve(unsigned long timeoutSec = 60, unsigned long timeoutUsec = 0) {
    server_ = std::make_unique<CMesgServer>(kSocketPath, timeoutSec, timeoutUsec);
    ASSERT_EQ(server_->startAcceptNewConnectionThread(), 0);
    ASSERT_EQ(server_->waitUntilListening(), 0);
  }
  size_t accepted() const { return log_.atPriority(LOG_INFO).size(); }
  // Connects and waits until the server has taken the client; its handle in the server.
  int accept(std::unique_ptr<RawClient>& client) {
    const size_t before = accepted();
    client = std::make_unique<RawClient>(kSocketPath);
    EXPECT_TRUE(client->connected());
    EXPECT_TRUE(eventually([&] { return accepted() > before; }));
    int fd = -1;
    EXPECT_EQ(
        sscanf(log_.atPriority(LOG_INFO).back().text.c_str(), "accept new client fd is %d", &fd),
        1);
    return fd;
  }
  // What readMesg or readReady found: "text", "<-1>" or "<0>".
  std::string readNext() { return outcome(server_->readMesg(buffer_, sizeof buffer_, &from_)); }
  std::string readReady() { return outcome(server_->readReady(buffer_, sizeof buffer_, &from_)); }
  std::string outcome(long got) {
    if (got <= 0) return "<" + std::to_string(got) + ">";
    return std::string(buffer_, static_cast<size_t>(got));
  }
  // What was logged, prefixes and all; only the line numbers, which are free, stand as N.
  std::vector<LogLine> linesAsN() const {
    static const std::regex number("^([A-Za-z_]+ line )[0-9]+( is )");
    std::vector<LogLine> lines = log_.lines();
    for (LogLine& line : lines) line.text = std::regex_replace(line.text, number, "$1N$2");
    return lines;
  }
  std::string closedText(int fd) const { return "socket " + std::to_string(fd) + " closed"; }

  SyslogCapture log_;
  std::unique_ptr<CMesgServer> server_;
  char buffer_[2048];
  long from_ = 0;
};

}  // namespace tarn_test
