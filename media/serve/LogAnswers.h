#pragma once

#include <mutex>

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"

namespace tarn {

// Answers with lines of the system log on the card. Any number of threads; they take turns.
class LogAnswers {
 public:
  HttpResponse log(const HttpRequest& request);

 private:
  std::mutex mutex_;
};

}  // namespace tarn
