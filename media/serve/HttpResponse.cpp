#include "media/serve/HttpResponse.h"

#include "media/serve/JsonText.h"

namespace tarn {

HttpResponse bodyOf(const char* type, std::string body) {
  HttpResponse response;
  response.type = type;
  response.body = std::move(body);
  return response;
}

HttpResponse errorResponse(int status, const std::string& text) {
  JsonText json;
  json.beginObject().key("error").text(text).end();
  HttpResponse response;
  response.status = status;
  response.body = json.take();
  return response;
}

}  // namespace tarn
