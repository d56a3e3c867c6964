#pragma once

#include <string>

#include "base/Export.h"

namespace tarn {

// A file of lines "key = value" in sections "[name]". Blank lines and lines that begin with # do
// not count. Not part of the interface. Used by one thread.
class TARN_API ConfigLines {
 public:
  virtual ~ConfigLines() = default;

  // False with *error set, which names the file, and the line where it is a line's.
  bool read(const std::string& path, std::string* error);

 protected:
  // Each: "", or what is wrong. A section's text has its brackets.
  virtual std::string begin(const std::string& section) = 0;
  virtual std::string set(const std::string& key, const std::string& value) = 0;
  virtual std::string end() const = 0;

 private:
  std::string take(const std::string& line);

  bool inSection_ = false;
};

}  // namespace tarn
