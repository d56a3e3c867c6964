#pragma once

#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

// A directory of this machine. What has its name there is on the medium: file and directory are
// flushed. Not part of the interface.
class FolderStore : public ArchiveStore {
 public:
  explicit FolderStore(const std::string& root) : root_(root) {}
  bool exists(std::string* error) const;

  bool list(const std::string& folder, std::vector<Object>* objects) override;
  bool get(const std::string& name, const ByteSink& take) override;
  std::string localPath(const std::string& name) const override { return pathOf(name); }
  bool look(const std::string& name, Object* object) override;
  bool holds(const std::string& name, bool* there) override;

 private:
  bool begin(const std::string& name) override;
  bool add(const uint8_t* data, size_t size) override;
  bool finish() override;
  void abandon() override { file_.reset(); }
  bool rename(const std::string& from, const std::string& to) override;
  bool remove(const std::string& name) override;
  bool readsBack() const override { return true; }

  std::string pathOf(const std::string& name) const { return root_ + "/" + name; }
  bool failWith(const std::string& what, const std::string& path, int code);
  bool makeFolders(const std::string& path);
  bool flushFolder(const std::string& path);

  const std::string root_;
  std::string path_;  // of the object that is being written
  UniqueFd file_;
};

}  // namespace tarn
