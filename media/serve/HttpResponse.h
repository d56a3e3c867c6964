#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "media/serve/BodyStream.h"

namespace tarn {

// An answer: a body as a whole, or one that is made while it is sent.
struct HttpResponse {
  int status = 200;
  std::string type = "application/json";
  std::string body;
  std::shared_ptr<BodyStream> stream;  // null: `body` is all
  int64_t length = -1;                 // of the stream; -1: not known
  std::vector<std::pair<std::string, std::string>> headers;
};

// What a recording holds does not change, but for a clock that becomes known.
inline constexpr char kCached[] = "private, max-age=60";
inline constexpr char kNothingThere[] = "nothing was recorded there";

HttpResponse bodyOf(const char* type, std::string body);
// {"error": text}
HttpResponse errorResponse(int status, const std::string& text);

}  // namespace tarn
