#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "base/Export.h"
#include "media/serve/JsonText.h"
#include "recorder/check/CardCheck.h"

namespace tarn {

// A check of the recorder's card that is asked for from a page and looked at while it goes on. One
// at a time, in a thread of its own. Any number of threads.
class TARN_API CheckJob {
 public:
  CheckJob() = default;
  ~CheckJob() { stop(); }
  CheckJob(const CheckJob&) = delete;
  CheckJob& operator=(const CheckJob&) = delete;

  // False when one is under way. Throws std::system_error when there is no thread for it.
  bool begin();
  void stop();
  // How far it is, and what it found (schema Check of docs/openapi.json).
  void addTo(JsonText* json) const;

 private:
  enum class State { kNone, kRunning, kDone, kFailed };

  void run();
  void look();
  void end(State state, std::string meaning, CardFindings findings);
  static const char* nameOf(State state);

  mutable std::mutex mutex_;
  State state_ = State::kNone;  // guarded by mutex_, as all below
  uint64_t done_ = 0;
  uint64_t total_ = 0;
  int64_t startedUs_ = 0;
  int64_t endedUs_ = 0;
  std::string meaning_;
  CardFindings findings_;
  std::atomic<bool> stopped_{false};  // set with mutex_ held
  std::thread thread_;                // begun with mutex_ held and stopped_ not set
};

}  // namespace tarn
