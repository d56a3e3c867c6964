#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/UniqueFd.h"
#include "media/serve/BodyStream.h"

namespace tarn {

// A file as a body whose length is known. One that became shorter breaks it off. Used by one
// thread.
class FileStream : public BodyStream {
 public:
  // `size` bytes of it. `kept` lives as long as this does: what the file belongs to.
  FileStream(std::string path, uint64_t size, std::shared_ptr<void> kept);

  ssize_t read(char* out, size_t room) override;

 private:
  const std::string path_;
  const std::shared_ptr<void> kept_;
  uint64_t left_;  // bytes
  UniqueFd file_;  // open as soon as it was read from
};

}  // namespace tarn
