#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "media/serve/BodyStream.h"

struct archive;
struct archive_entry;

namespace tarn {

// Files as a .zip that holds them as they are, made while it is sent: no file of it is anywhere,
// and memory holds a block of one file and the list of their names. The same files make the same
// bytes. A file that became shorter breaks it off. Used by one thread.
class ZipStream : public BodyStream {
 public:
  struct File {
    std::string path;
    std::string name;  // in the .zip, with / between folders
    uint64_t size = 0;
    int64_t time = 0;  // seconds since 1970
  };

  // `kept` lives as long as this does: what the files belong to.
  ZipStream(std::vector<File> files, std::shared_ptr<void> kept);
  ~ZipStream() override;

  ssize_t read(char* out, size_t room) override;

  // Bytes of the .zip of these files, which are read once for it, in this thread; -1 when one
  // cannot be, or `stopAsked` says so.
  static int64_t lengthOf(const std::vector<File>& files, const std::function<bool()>& stopAsked);

 private:
  struct Freed {
    void operator()(archive* one) const;
    void operator()(archive_entry* one) const;
  };

  static ssize_t take(archive* zip, void* self, const void* data, size_t size);
  bool makeMore();
  bool beginFile();
  bool packBlock();

  const std::vector<File> files_;
  const std::shared_ptr<void> kept_;
  std::unique_ptr<archive, Freed> zip_;
  std::unique_ptr<archive_entry, Freed> entry_;
  std::vector<char> block_;
  UniqueFd file_;      // of files_[next_], once that was begun
  size_t next_ = 0;    // in files_
  uint64_t left_ = 0;  // bytes of it
  bool ended_ = false;
  bool failed_ = false;
  bool isLeft_ = false;  // nobody takes what is made
  std::string made_;     // of the .zip
  size_t sent_ = 0;      // of that
};

}  // namespace tarn
