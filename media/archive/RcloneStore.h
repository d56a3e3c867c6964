#pragma once

#include <memory>
#include <string>
#include <vector>

#include "media/archive/ArchiveStore.h"
#include "media/archive/RcloneProcess.h"
#include "media/archive/RemoteName.h"

namespace tarn {

// A remote of rclone's, a run of that program for each operation. Not part of the interface.
class RcloneStore : public ArchiveStore {
 public:
  explicit RcloneStore(const std::string& root) : root_(root), name_(root) {}

  bool list(const std::string& folder, std::vector<Object>* objects) override;
  bool get(const std::string& name, const ByteSink& take) override;
  bool look(const std::string& name, Object* object) override;
  bool holds(const std::string& name, bool* there) override;

 private:
  bool begin(const std::string& name) override;
  bool add(const uint8_t* data, size_t size) override;
  bool finish() override;
  void abandon() override { sending_.reset(); }
  bool rename(const std::string& from, const std::string& to) override;
  bool remove(const std::string& name) override;
  bool readsBack() const override { return false; }

  std::string addressOf(const std::string& name) const;
  // `name`: of the object or folder that it is about.
  bool run(const std::string& name, const std::vector<std::string>& words, std::string* output);
  bool run(const std::string& name, const std::vector<std::string>& words, const ByteSink& take);
  bool saysNotThere() const {
    return exitCode_ == RcloneProcess::kNoFolder || exitCode_ == RcloneProcess::kNoFile;
  }
  bool failOf(const std::string& name, const std::string& complaint);

  const std::string root_;
  const RemoteName name_;
  int exitCode_ = 0;  // of the last run()
  std::unique_ptr<RcloneProcess> sending_;
  std::string sendingName_;
};

}  // namespace tarn
