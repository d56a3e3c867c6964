#pragma once

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
  std::vector<std::pair<std::string, std::string>> headers;
};

// {"error": text}
HttpResponse errorResponse(int status, const std::string& text);

}  // namespace tarn
