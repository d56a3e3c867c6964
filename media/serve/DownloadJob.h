#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media/serve/DownloadMaker.h"
#include "media/serve/FileStream.h"
#include "media/serve/JsonText.h"
#include "media/serve/ZipFormat.h"

namespace tarn {

// A download that has to be made before it is sent: in a folder of its own, which goes with this
// object. Any number of threads.
class DownloadJob {
 public:
  enum class State { kMaking, kReady, kTaken, kFailed };

  // Makes it below `place`, which must leave half of its room free.
  DownloadJob(std::string id, std::string place, DownloadRequest request, DownloadMaker maker);
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
  // Of a ready one, once: what is sent, and its name. `self` is kept until that has ended.
  std::shared_ptr<FileStream> take(const std::shared_ptr<DownloadJob>& self, std::string* name);

 private:
  void run();
  void make();
  bool asksToStop();
  bool hasRoom() const;
  bool packFiles(std::string* error);
  bool sumFile(const std::string& path, uint32_t* crc);
  std::vector<FileStream::Part> zipParts() const;
  void end(State state, const std::string& error);

  const std::string id_;
  const std::string place_;
  DownloadRequest request_;
  const DownloadMaker maker_;
  std::string folder_;        // made by begin(); "": none
  uint64_t freeAtFirst_ = 0;  // bytes
  std::atomic<bool> stopped_{false};
  std::atomic<uint64_t> pieces_{0};  // how often it was asked whether to stop
  std::atomic<int64_t> askedUs_{0};
  bool noRoom_ = false;  // the thread's own, as paths_ until it has ended
  mutable std::mutex mutex_;
  State state_ = State::kMaking;  // guarded by mutex_, as below
  std::string error_;
  std::vector<std::string> missing_;
  std::vector<std::string> paths_;  // of the files
  std::vector<ZipEntry> entries_;   // the same, in that order
  std::thread thread_;
};

}  // namespace tarn
