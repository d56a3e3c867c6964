#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

namespace tarn {

// Breaks off connections that take their time: a question must be there as a whole soon after it
// was begun, and an answer must be taken within its time, however busy a client makes itself look
// byte by byte. Any number of threads.
class ConnectionWatch {
 public:
  enum class Phase {
    kAsking,     // nothing, or a part of a question, came yet
    kAnswering,  // an answer is on its way that has an end
    kListening,  // one that lasts as long as the client likes, or as it takes
  };

  static constexpr int64_t kAskingMs = 15000;
  static constexpr int64_t kAnsweringMs = 120000;

  explicit ConnectionWatch(int64_t askingMs = kAskingMs, int64_t answeringMs = kAnsweringMs)
      : askingMs_(askingMs), answeringMs_(answeringMs) {}
  ~ConnectionWatch() { stop(); }
  ConnectionWatch(const ConnectionWatch&) = delete;
  ConnectionWatch& operator=(const ConnectionWatch&) = delete;

  void start();
  void stop();
  // From opened() on the connection's socket is this object's to shut down, until closed(), which
  // comes before it is closed.
  void opened(const void* connection, int fd);
  void enters(const void* connection, Phase phase);
  void closed(const void* connection);

 private:
  struct Known {
    int fd = -1;
    Phase phase = Phase::kAsking;
    int64_t sinceUs = 0;
  };

  void run();
  int64_t patienceUs(Phase phase) const;

  const int64_t askingMs_;
  const int64_t answeringMs_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<const void*, Known> known_;  // guarded by mutex_
  bool stopped_ = false;                // guarded by mutex_
  std::thread thread_;
};

}  // namespace tarn
