#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "manager/RequestFormat.h"

namespace tarn_test {

inline constexpr char kSocketPath[] = "/tmp/unix-sock-tarn-server";

using Message = std::vector<uint8_t>;

// A request as it must stand on the wire, typed as its seven words; the rest of it is zeros.
inline Message wire(const std::vector<uint32_t>& words) {
  Message bytes(1024, 0);
  for (size_t i = 0; i < words.size(); ++i) {
    for (size_t b = 0; b < 4; ++b) bytes[4 * i + b] = static_cast<uint8_t>(words[i] >> (8 * b));
  }
  return bytes;
}

inline void putWord(Message& message, size_t offset, uint32_t value) {
  for (size_t b = 0; b < 4; ++b) message[offset + b] = static_cast<uint8_t>(value >> (8 * b));
}
inline uint32_t getWord(const Message& message, size_t offset) {
  uint32_t value = 0;
  for (size_t b = 0; b < 4; ++b) value |= uint32_t{message[offset + b]} << (8 * b);
  return value;
}

// Stands in for the management server: keeps every request as its bytes and answers as told. Uses
// recv() and send(), which IoFaults does not see, so that faults reach the client alone.
class FakeServer {
 public:
  // Turns a request into its answer; result has been set to 0 before.
  using Handler = std::function<void(Message&)>;
  enum class Misbehave {
    No,
    Refuse,       // answers with result 1
    Untouched,    // sends the request back as it came
    Close,        // reads the request and closes the connection
    CloseUnread,  // closes with the request unread: the client's read fails
    Short,        // answers with the first 12 bytes only
  };

  FakeServer() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocketPath);
    listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_, 5), 0);
    EXPECT_EQ(pipe(stop_), 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeServer() {
    ::close(stop_[1]);
    thread_.join();
    ::close(stop_[0]);
    ::close(listener_);
    for (int client : clients_) ::close(client);
    unlink(kSocketPath);
  }
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

  void on(uint32_t command, Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_[command] = std::move(handler);
  }
  // How the n-th request from now on (1: the next one) is met.
  void misbehave(Misbehave how, int n = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    orders_[seen_ + n] = how;
  }
  std::vector<Message> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  void forget() {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.clear();
  }
  int connections() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }

 private:
  void serve() {
    for (;;) {
      std::vector<pollfd> waiting = {{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
      for (int client : clients_) waiting.push_back({client, POLLIN, 0});
      if (poll(waiting.data(), waiting.size(), -1) < 0) continue;
      if (waiting[0].revents != 0) return;
      for (size_t i = 2; i < waiting.size(); ++i) {
        if (waiting[i].revents != 0) meet(waiting[i].fd);
      }
      if (waiting[1].revents != 0) take();
    }
  }

  void take() {
    const int client = accept(listener_, nullptr, nullptr);
    if (client < 0) return;
    clients_.push_back(client);
    std::lock_guard<std::mutex> lock(mutex_);
    ++connections_;
  }

  void drop(int client) {
    for (size_t i = 0; i < clients_.size(); ++i) {
      if (clients_[i] == client) clients_.erase(clients_.begin() + static_cast<long>(i));
    }
    ::close(client);
  }

  void meet(int client) {
    uint8_t buffer[2048];
    const ssize_t length = recv(client, buffer, sizeof buffer, MSG_PEEK);
    if (length <= 0) return drop(client);
    Message message(buffer, buffer + length);
    Misbehave how = Misbehave::No;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(message);
      const auto order = orders_.find(++seen_);
      if (order != orders_.end()) how = order->second;
    }
    if (how == Misbehave::CloseUnread) return drop(client);
    recv(client, buffer, sizeof buffer, 0);
    if (how == Misbehave::Close) return drop(client);
    if (how != Misbehave::Untouched) answer(message, how);
    const size_t size = how == Misbehave::Short ? 12 : message.size();
    send(client, message.data(), size, MSG_NOSIGNAL);
  }

  void answer(Message& message, Misbehave how) {
    putWord(message, 8, how == Misbehave::Refuse ? 1 : 0);
    if (how == Misbehave::Refuse) return;
    std::lock_guard<std::mutex> lock(mutex_);
    const auto handler = handlers_.find(getWord(message, 0));
    if (handler != handlers_.end()) handler->second(message);
  }

  int listener_ = -1;
  int stop_[2] = {-1, -1};
  std::vector<int> clients_;  // the serving thread's
  std::thread thread_;
  mutable std::mutex mutex_;  // guards what follows
  std::map<uint32_t, Handler> handlers_;
  std::map<int, Misbehave> orders_;
  std::vector<Message> requests_;
  int seen_ = 0;
  int connections_ = 0;
};

}  // namespace tarn_test
