#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/Export.h"
#include "media/serve/AccessToken.h"
#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/ListenPlace.h"

namespace tarn {

// Where and to whom a server answers.
struct HttpOptions {
  ListenPlace place;
  std::string tokenFile;    // "": everybody who reaches it
  std::string certificate;  // file of a chain in PEM; "": without TLS
  std::string key;          // file of its private key
};

// Questions over HTTP, one thread for each connection. What a client can ask for is bounded: the
// size of a question, its parameters, the time that it takes, and the connections at a time,
// altogether and of an address. Beyond the loopback it answers over TLS and to those who know the
// token only.
class TARN_API HttpServer {
 public:
  using Answer = std::function<HttpResponse(const HttpRequest&)>;

  // `answer` is called from many threads at once and throws nothing.
  explicit HttpServer(Answer answer);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // False with *error set, also for options that would leave the card open to a network.
  bool start(const HttpOptions& options, std::string* error);
  // Ends every connection. Streams must have come to their end first.
  void stop();
  // "http://127.0.0.1:8420/"; after start().
  std::string address() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
