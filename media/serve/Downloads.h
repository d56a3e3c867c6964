#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "media/serve/DownloadJob.h"
#include "media/serve/ExportAnswers.h"
#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"

namespace tarn {

// Downloads that are made before they are sent: begun, looked at while they are made, taken once.
// One is made at a time, and few wait to be taken. What was taken goes, and so does what nobody
// asks for any more, its files with it. Any number of threads.
class Downloads {
 public:
  // Made below the folder `place`; an empty maker makes none. `exports` and `writers` outlive this.
  Downloads(std::string place, DownloadMaker maker, ExportAnswers* exports, WritersFirst* writers);
  ~Downloads() { stop(); }
  Downloads(const Downloads&) = delete;
  Downloads& operator=(const Downloads&) = delete;

  // Ends all that is being made, and begins nothing any more.
  void stop();

  HttpResponse begin(const HttpRequest& request);
  HttpResponse state(const HttpRequest& request);
  HttpResponse take(const HttpRequest& request);
  HttpResponse giveUp(const HttpRequest& request);

 private:
  using Job = std::shared_ptr<DownloadJob>;
  static constexpr size_t kMostReady = 2;

  Job find(const std::string& id);
  bool hasRoom() const;  // with mutex_
  void run();
  bool isOver(const DownloadJob& job) const;
  void removeOver();

  const std::string place_;
  const DownloadMaker maker_;
  ExportAnswers* exports_;
  WritersFirst* writers_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<std::string, Job> jobs_;  // guarded by mutex_, as below
  bool stopped_ = false;
  std::thread thread_;  // begun with the first
};

// "channel0-20260301-120000" in local time.
std::string downloadName(const std::string& beginning, int64_t us);

}  // namespace tarn
