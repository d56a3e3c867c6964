#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "base/UniqueFd.h"

namespace tarn_test {

// Waits until the condition holds; false when it does not within 20 s.
template <typename Condition>
bool eventually(Condition holds) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline sockaddr_un addressOf(const char* path) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  return address;
}

// A client without CMesgClient's manners.
class RawClient {
 public:
  explicit RawClient(const char* path) : fd_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
    const sockaddr_un address = addressOf(path);
    result_ = connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result_ != 0) error_ = errno;
  }
  bool connected() const { return result_ == 0; }
  int error() const { return error_; }
  int fd() const { return fd_.get(); }
  void close() { fd_.reset(); }

  bool send(const std::string& text) {
    return ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
  }
  // The next message; "" when the server has closed, "<nothing>" when none comes in time.
  std::string receive(int timeoutMs = 20000) {
    pollfd entry{fd_.get(), POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) return "<nothing>";
    char buffer[4096];
    const ssize_t got = read(fd_.get(), buffer, sizeof buffer);
    if (got < 0) return "<error>";
    return std::string(buffer, static_cast<size_t>(got));
  }

 private:
  tarn::UniqueFd fd_;
  int result_ = -1;
  int error_ = 0;
};

}  // namespace tarn_test
