// Questions to the page's server, behind HTTP: whatever is asked, there is an answer of those that
// the contract knows, and a refusal says why.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "fuzz/FuzzCard.h"
#include "fuzz/Muted.h"
#include "media/serve/AccessToken.h"
#include "media/serve/ListenPlace.h"
#include "media/serve/ServeApi.h"
#include "recorder/recovery/Recovery.h"

namespace {

constexpr uint8_t kPageBytes[] = "<!doctype html>";
constexpr int kReads = 64;
constexpr char kNews[] = "/api/stream";

// Of one card, which nothing changes.
tarn::ServeApi& api() {
  static tarn::ServeApi* const api = [] {
    tarn_fuzz::FuzzCard::get();
    std::string error;
    auto* made = new tarn::ServeApi({"1", false, false, false, "/tmp", nullptr},
                                    {{"index.html", kPageBytes, sizeof kPageBytes - 1}});
    if (!tarn::Recovery().run().ok() || !made->start(&error)) {
      fprintf(stderr, "no server: %s\n", error.c_str());
      abort();
    }
    return made;
  }();
  return *api;
}

tarn::HttpRequest requestOf(std::string text) {
  tarn::HttpRequest request;
  if (text.rfind("POST ", 0) == 0) {
    request.method = tarn::HttpRequest::Method::kPost;
    text.erase(0, 5);
  }
  const size_t mark = text.find('?');
  request.path = text.substr(0, mark);
  std::string rest = mark == std::string::npos ? "" : text.substr(mark + 1);
  while (!rest.empty()) {
    const std::string part = rest.substr(0, rest.find('&'));
    rest.erase(0, std::min(rest.size(), part.size() + 1));
    const size_t equals = part.find('=');
    request.query.emplace_back(part.substr(0, equals),
                               equals == std::string::npos ? "" : part.substr(equals + 1));
  }
  return request;
}

void expectSense(const tarn::HttpRequest& request, const tarn::HttpResponse& response) {
  static const std::set<int> kKnown = {200, 400, 404, 405, 409, 503};
  if (kKnown.count(response.status) == 0) abort();
  if (response.status >= 400 && response.body.rfind("{\"error\":\"", 0) != 0) abort();
  if (response.type.empty()) abort();
  if (response.stream == nullptr) return;
  // News may be long in coming; a file has its end.
  char bytes[4096];
  const int reads = request.path == kNews ? 1 : kReads;
  for (int i = 0; i < reads && response.stream->read(bytes, sizeof bytes) >= 0; ++i) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tarn_fuzz::muteStandardOutput();
  api();
  // What follows the database must have ended before what it uses goes.
  atexit([] { api().stop(); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const tarn::HttpRequest request = requestOf(text);
  expectSense(request, api().answer(request));
  tarn::ListenPlace place;
  std::string error;
  if (place.parse(text, &error) != error.empty()) abort();
  const bool same = tarn::AccessToken::same(text, request.path);
  if (same != (text == request.path)) abort();
  return 0;
}
