#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "base/Export.h"
#include "media/serve/BodyStream.h"

namespace tarn {

// News for whoever watches, as server-sent events. A watcher that does not keep up misses the
// oldest and is told so; nobody waits for it. Any number of threads.
class TARN_API EventFeed {
 public:
  // `data` is JSON, without line feeds.
  void tell(const char* name, const std::string& data);
  // No more news: every stream ends.
  void close();
  // From now on. The feed outlives it.
  std::shared_ptr<BodyStream> listen();
  // Those that listen now.
  int listeners() const;

 private:
  class Listener;
  static constexpr size_t kKept = 256;

  mutable std::mutex mutex_;
  std::condition_variable news_;
  std::deque<std::string> kept_;  // guarded by mutex_, as all below
  uint64_t next_ = 0;             // number of the next one; kept_ ends in front of it
  bool closed_ = false;
  int listeners_ = 0;
};

}  // namespace tarn
