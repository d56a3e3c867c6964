#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <list>
#include <string>
#include <thread>

#include "base/UniqueFd.h"
#include "media/serve/HttpServer.h"

namespace tarn_test {
namespace {

constexpr size_t kMiB = 1024 * 1024;
constexpr size_t kBodyBytes = 10 * kMiB;
constexpr size_t kWholeBodies = 9;  // of 96 MiB

// A server of large answers, and clients that take no more of them than their first line.
class HttpServerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(options_.place.parse("127.0.0.1:0", &error)) << error;
    ASSERT_TRUE(server_.start(options_, &error)) << error;
    const std::string address = server_.address();
    const size_t mark = address.rfind(':');
    port_ = static_cast<uint16_t>(std::stoul(address.substr(mark + 1)));
  }
  void TearDown() override { server_.stop(); }

  tarn::UniqueFd ask() const {
    tarn::UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in place = {};
    place.sin_family = AF_INET;
    place.sin_port = htons(port_);
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const std::string question = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    const bool asked =
        connect(client.get(), reinterpret_cast<sockaddr*>(&place), sizeof place) == 0 &&
        send(client.get(), question.data(), question.size(), MSG_NOSIGNAL) > 0;
    EXPECT_TRUE(asked);
    return client;
  }
  static std::string statusOf(const tarn::UniqueFd& client) {
    char line[12] = {};
    const ssize_t got = recv(client.get(), line, sizeof line, MSG_WAITALL);
    return got == sizeof line ? std::string(line + 9, 3) : "";
  }

  tarn::HttpOptions options_;
  tarn::HttpServer server_{[](const tarn::HttpRequest&) {
    tarn::HttpResponse response;
    response.body.assign(kBodyBytes, 'x');
    return response;
  }};
  uint16_t port_ = 0;
};

TEST_F(HttpServerTest, AnswersThatNobodyTakesAreBoundedAndOthersAreRefusedMeanwhile) {
  std::list<tarn::UniqueFd> clients;
  for (size_t i = 0; i < kWholeBodies; ++i) {
    clients.push_back(ask());
    ASSERT_EQ(statusOf(clients.back()), "200") << i;
  }
  EXPECT_EQ(statusOf(ask()), "503") << "more than 96 MiB would be on their way";
  // Whoever leaves makes room.
  clients.pop_front();
  std::string status;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (status != "200" && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
    status = statusOf(ask());
  }
  EXPECT_EQ(status, "200");
}

}  // namespace
}  // namespace tarn_test
