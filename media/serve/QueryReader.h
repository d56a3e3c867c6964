#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include "base/Export.h"
#include "media/serve/HttpRequest.h"

namespace tarn {

// Reads the parameters of a question. What is wrong with them shows at the end, in error(): the
// first of it. Used by one thread; the request outlives this.
class TARN_API QueryReader {
 public:
  // Others than `known`, and one that comes twice, are an error.
  QueryReader(const HttpRequest& request, std::initializer_list<const char*> known);

  bool has(const char* name) const { return find(name) != nullptr; }
  // "" without one.
  std::string text(const char* name) const;
  // A time in milliseconds since 1970, with decimals, as microseconds. Nothing without one.
  std::optional<int64_t> timeUs(const char* name);
  int64_t timeUsNeeded(const char* name);
  std::optional<int64_t> number(const char* name, int64_t least, int64_t most);
  int64_t number(const char* name, int64_t least, int64_t most, int64_t otherwise);
  std::optional<int> channel();
  int channelNeeded();

  void fail(const std::string& text);
  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }

 private:
  const std::string* find(const char* name) const;

  const HttpRequest& request_;
  std::string error_;
};

}  // namespace tarn
