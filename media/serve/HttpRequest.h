#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarn {

// A question as a browser asks it, behind what HTTP wraps around it: nothing of it has been
// believed yet. The path and the parameters are decoded.
struct HttpRequest {
  enum class Method { kGet, kPost };  // HEAD is a GET whose body nobody sends

  Method method = Method::kGet;
  std::string path;
  std::vector<std::pair<std::string, std::string>> query;
};

}  // namespace tarn
