#pragma once

#include <unistd.h>

#include <utility>

namespace tarn {

// Owns a file descriptor and closes it when it goes out of scope; -1 owns nothing.
// Call close() where the result of closing matters. Keeps errno when it closes on its own.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1);
  // Closes now and returns what the operating system said; 0 when nothing was owned.
  int close();

 private:
  int fd_ = -1;
};

}  // namespace tarn
