#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/PageFile.h"
#include "media/serve/ServeSettings.h"

namespace tarn {

// Everything that the server answers, from question to answer and without a socket: what it is held
// to stands in docs/openapi.json. Addresses are a fixed table; none of them leads to a file of the
// machine.
class TARN_API ServeApi {
 public:
  ServeApi(const ServeSettings& settings, std::vector<PageFile> page);
  ~ServeApi();
  ServeApi(const ServeApi&) = delete;
  ServeApi& operator=(const ServeApi&) = delete;

  // Reads the recorder's database once, and follows it from then on. False with *error set.
  bool start(std::string* error);
  // Ends what runs beside the answers, and the streams of news. Answers go on.
  void stop();

  // After start(). Any number of threads; throws nothing.
  HttpResponse answer(const HttpRequest& request) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
