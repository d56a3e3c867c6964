#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "media/serve/BodyStream.h"

namespace tarn {

// Files of a folder and texts between them, one behind the other, as a body whose length is known.
// A file that became shorter breaks it off. Used by one thread.
class FileStream : public BodyStream {
 public:
  // What is sent next: a text, or `size` bytes of a file.
  struct Part {
    std::string text;
    std::string path;  // "": it is the text
    uint64_t size = 0;
  };

  // `kept` lives as long as this does: what the files belong to.
  FileStream(std::vector<Part> parts, std::shared_ptr<void> kept);

  uint64_t size() const;
  ssize_t read(char* out, size_t room) override;

 private:
  ssize_t readPart(const Part& part, char* out, size_t room);

  const std::vector<Part> parts_;
  const std::shared_ptr<void> kept_;
  size_t part_ = 0;
  uint64_t sent_ = 0;  // of it
  UniqueFd file_;
};

}  // namespace tarn
