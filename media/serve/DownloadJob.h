#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "media/serve/BodyStream.h"
#include "media/serve/DownloadMaker.h"
#include "media/serve/JsonText.h"
#include "media/serve/WritersFirst.h"
#include "media/serve/ZipStream.h"

namespace tarn {

// A download that has to be made before it is sent: in a folder of its own, which goes with this
// object. Any number of threads.
class DownloadJob {
 public:
  enum class State { kMaking, kReady, kTaken, kFailed };

  // Makes it below `place`, which must leave half of its room free. `writers` outlives this.
  DownloadJob(std::string id, std::string place, DownloadRequest request, DownloadMaker maker,
              WritersFirst* writers);
  ~DownloadJob();
  DownloadJob(const DownloadJob&) = delete;
  DownloadJob& operator=(const DownloadJob&) = delete;

  // Once. False with *error set when there is no folder for it.
  bool begin(std::string* error);
  void stop() { stopped_ = true; }
  State state() const;
  const std::string& id() const { return id_; }
  // Somebody waits for it still; how long ago anybody did, in microseconds.
  void noteAsked();
  int64_t unaskedUs() const;

  // How far it is (schema Download of docs/openapi.json).
  void addTo(JsonText* json) const;
  // Of a ready one, once: what is sent, its name, and its length in bytes. `self` is kept until
  // that has ended.
  std::shared_ptr<BodyStream> take(const std::shared_ptr<DownloadJob>& self, std::string* name,
                                   int64_t* length);

 private:
  void run();
  void make();
  bool asksToStop();
  bool hasRoom() const;
  bool listFiles(std::vector<ZipStream::File>* files) const;
  bool lookAtFiles(std::string* error);
  bool isZip(const std::vector<ZipStream::File>& files) const;
  void end(State state, const std::string& error);

  WritersFirst* const writers_;
  const std::string id_;
  const std::string place_;
  DownloadRequest request_;
  const DownloadMaker maker_;
  std::string folder_;        // made by begin(); "": none
  uint64_t freeAtFirst_ = 0;  // bytes
  std::atomic<bool> stopped_{false};
  std::atomic<uint64_t> pieces_{0};  // how often it was asked whether to stop
  std::atomic<int64_t> askedUs_{0};
  bool noRoom_ = false;                           // the thread's own
  std::optional<WritersFirst::Reading> reading_;  // the same
  mutable std::mutex mutex_;
  State state_ = State::kMaking;  // guarded by mutex_, as below
  std::string error_;
  std::vector<std::string> missing_;
  std::vector<ZipStream::File> files_;
  int64_t length_ = 0;  // of what is sent, bytes
  std::thread thread_;
};

}  // namespace tarn
