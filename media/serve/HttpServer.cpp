#include "media/serve/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "media/MonotonicTime.h"
#include "media/serve/ConnectionWatch.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr unsigned kConnections = 600;
constexpr unsigned kConnectionsOfOne = 520;
constexpr unsigned kIdleSeconds = 30;
constexpr size_t kRequestBytes = 32 * 1024;  // line, headers and what leads to an answer
constexpr size_t kStackBytes = 512 * 1024;
constexpr size_t kStreamBlock = 64 * 1024;
constexpr size_t kMostParameters = 16;
constexpr size_t kMostUnderWay = size_t{96} * 1024 * 1024;  // of answers, all together
constexpr size_t kMostPathBytes = 200;

// Everything comes from this server, and nothing of it runs but its own scripts.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
    "media-src 'self' blob:; connect-src 'self'; manifest-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";
constexpr const char* kHeaders[][2] = {{"X-Content-Type-Options", "nosniff"},
                                       {"Content-Security-Policy", kPolicy},
                                       {"Referrer-Policy", "no-referrer"},
                                       {"Cross-Origin-Resource-Policy", "same-origin"}};

constexpr char kOpenWithoutTls[] =
    "beyond this machine it listens only with --tls-certificate, --tls-key and --token-file: "
    "whoever "
    "reached it would see everything";
constexpr char kTooMuch[] = "too much is on its way: try again in a moment";
constexpr char kHalfOfTls[] = "--tls-certificate and --tls-key belong together";

// A body whose bytes belong to the response that sends it, counted among those that are on their
// way.
struct Body {
  Body(std::string text, std::atomic<size_t>* all) : bytes(std::move(text)), underWay(all) {
    *underWay += bytes.size();
  }
  ~Body() { *underWay -= bytes.size(); }
  Body(const Body&) = delete;
  Body& operator=(const Body&) = delete;

  std::string bytes;
  std::atomic<size_t>* underWay;
};

void freeBody(void* body) { delete static_cast<Body*>(body); }

ssize_t readStream(void* stream, uint64_t /*position*/, char* out, size_t room) {
  return orNoMemory(
      "HttpServer",
      [&] { return (*static_cast<std::shared_ptr<BodyStream>*>(stream))->read(out, room); },
      [] { return ssize_t{MHD_CONTENT_READER_END_WITH_ERROR}; });
}

void freeStream(void* stream) { delete static_cast<std::shared_ptr<BodyStream>*>(stream); }

std::string fileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string addressOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr) return "";
  char text[INET6_ADDRSTRLEN] = {};
  const sockaddr* address = info->client_addr;
  const void* number =
      address->sa_family == AF_INET6
          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr)
          : &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  inet_ntop(address->sa_family, number, text, sizeof text);
  return text;
}

std::string headerOf(MHD_Connection* connection, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value != nullptr ? value : "";
}

// What a browser calls this machine when it means it, without the port.
bool namesThisMachine(std::string host) {
  const size_t bracket = host.find(']');
  host =
      bracket != std::string::npos ? host.substr(0, bracket + 1) : host.substr(0, host.find(':'));
  return host.empty() || host == "localhost" || host == "[::1]" || host.rfind("127.", 0) == 0;
}

}  // namespace

class HttpServer::Impl {
 public:
  explicit Impl(Answer answer) : answer_(std::move(answer)) {}
  ~Impl() { stop(); }

  bool start(const HttpOptions& options, std::string* error);
  void stop();
  std::string address() const {
    return (certificate_.empty() ? "http://" : "https://") + place_.text() + "/";
  }

 private:
  static MHD_Result handle(void* self, MHD_Connection* connection, const char* url,
                           const char* method, const char* version, const char* data,
                           size_t* dataSize, void** asked);
  static void* judgeAddress(void* self, const char* address, MHD_Connection* connection);
  static void notifyConnection(void* self, MHD_Connection* connection, void** context,
                               MHD_ConnectionNotificationCode code);
  static void notifyCompleted(void* self, MHD_Connection* connection, void** asked,
                              MHD_RequestTerminationCode code);
  static MHD_Result takeArgument(void* request, MHD_ValueKind kind, const char* name,
                                 const char* value);

  bool mayListen(const HttpOptions& options, std::string* error);
  HttpResponse respond(MHD_Connection* connection, const char* url, const char* method);
  HttpResponse judged(MHD_Connection* connection, const char* method, bool* good);
  MHD_Result send(MHD_Connection* connection, HttpResponse response);

  const Answer answer_;
  ListenPlace place_;
  AccessToken token_;
  std::string certificate_;
  std::string key_;
  ConnectionWatch watch_;
  std::atomic<size_t> underWay_{0};  // bytes of answers that are sent
  MHD_Daemon* daemon_ = nullptr;
  char zeroByte_ = 0;  // its address marks a question whose address has one
};

bool HttpServer::Impl::mayListen(const HttpOptions& options, std::string* error) {
  if (options.certificate.empty() != options.key.empty()) {
    *error = kHalfOfTls;
    return false;
  }
  if (!options.place.isLoopback() && (options.certificate.empty() || options.tokenFile.empty())) {
    *error = kOpenWithoutTls;
    return false;
  }
  if (!options.tokenFile.empty() && !token_.read(options.tokenFile, error)) return false;
  if (options.certificate.empty()) return true;
  certificate_ = fileText(options.certificate);
  key_ = fileText(options.key);
  if (!certificate_.empty() && !key_.empty()) return true;
  *error = "cannot read " + (certificate_.empty() ? options.certificate : options.key);
  return false;
}

bool HttpServer::Impl::start(const HttpOptions& options, std::string* error) {
  place_ = options.place;
  if (!mayListen(options, error)) return false;
  UniqueFd socket = place_.open(error);
  if (!socket.valid()) return false;
  const bool secure = !certificate_.empty();
  MHD_OptionItem tls[] = {{MHD_OPTION_HTTPS_MEM_CERT, 0, certificate_.data()},
                          {MHD_OPTION_HTTPS_MEM_KEY, 0, key_.data()},
                          {MHD_OPTION_END, 0, nullptr}};
  MHD_OptionItem none[] = {{MHD_OPTION_END, 0, nullptr}};
  unsigned flags = MHD_USE_THREAD_PER_CONNECTION;
  flags |= MHD_USE_INTERNAL_POLLING_THREAD;
  flags |= MHD_USE_POLL;
  flags |= MHD_USE_ITC;
  if (secure) flags |= MHD_USE_TLS;
  watch_.start();
  daemon_ = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &Impl::handle, this, MHD_OPTION_LISTEN_SOCKET, socket.get(),
      MHD_OPTION_CONNECTION_LIMIT, kConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      kConnectionsOfOne, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, kRequestBytes, MHD_OPTION_THREAD_STACK_SIZE, kStackBytes,
      MHD_OPTION_URI_LOG_CALLBACK, &Impl::judgeAddress, this, MHD_OPTION_NOTIFY_COMPLETED,
      &Impl::notifyCompleted, this, MHD_OPTION_NOTIFY_CONNECTION, &Impl::notifyConnection, this,
      MHD_OPTION_ARRAY, secure ? tls : none, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    *error = secure ? "the server cannot begin: are certificate and key a pair?"
                    : "the server cannot begin";
    return false;
  }
  socket.release();  // the daemon closes it
  return true;
}

void HttpServer::Impl::stop() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
  watch_.stop();
}

void HttpServer::Impl::notifyConnection(void* self, MHD_Connection* connection, void** /*context*/,
                                        MHD_ConnectionNotificationCode code) {
  ConnectionWatch& watch = static_cast<Impl*>(self)->watch_;
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) return watch.closed(connection);
  const MHD_ConnectionInfo* info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  if (info != nullptr) watch.opened(connection, info->connect_fd);
}

void HttpServer::Impl::notifyCompleted(void* self, MHD_Connection* connection, void** /*asked*/,
                                       MHD_RequestTerminationCode /*code*/) {
  static_cast<Impl*>(self)->watch_.enters(connection, ConnectionWatch::Phase::kAsking);
}

// A zero byte would end the address early, and lead to another one.
void* HttpServer::Impl::judgeAddress(void* self, const char* address,
                                     MHD_Connection* /*connection*/) {
  return strstr(address, "%00") != nullptr ? &static_cast<Impl*>(self)->zeroByte_ : nullptr;
}

MHD_Result HttpServer::Impl::takeArgument(void* request, MHD_ValueKind /*kind*/, const char* name,
                                          const char* value) {
  auto& query = static_cast<HttpRequest*>(request)->query;
  query.emplace_back(name, value != nullptr ? value : "");
  return query.size() <= kMostParameters ? MHD_YES : MHD_NO;
}

// Whether the question is one that this server listens to at all.
HttpResponse HttpServer::Impl::judged(MHD_Connection* connection, const char* method, bool* good) {
  *good = false;
  // A page of somebody else's whose name was made to lead here must not read what is on the card.
  const std::string host = headerOf(connection, MHD_HTTP_HEADER_HOST);
  if (place_.isLoopback() && !namesThisMachine(host))
    return errorResponse(403, "this server is called by the number of its machine");
  switch (token_.judge(headerOf(connection, MHD_HTTP_HEADER_AUTHORIZATION), addressOf(connection),
                       monotonicUs() / 1000)) {
    case AccessToken::Verdict::kTooManyTries:
      return errorResponse(429, "too many wrong tokens: try again in a minute");
    case AccessToken::Verdict::kWrong: {
      HttpResponse response = errorResponse(401, "this server wants its token");
      response.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"tarn\"");
      return response;
    }
    case AccessToken::Verdict::kGood:
      break;
  }
  const bool post = strcmp(method, MHD_HTTP_METHOD_POST) == 0;
  if (!post && strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
      strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
    return errorResponse(405, "only GET and HEAD, and POST where it is listed");
  // A browser says on whose page somebody pressed the button.
  const std::string origin = headerOf(connection, "Origin");
  const size_t scheme = origin.find("://");
  if (post && !origin.empty() && (scheme == std::string::npos || origin.substr(scheme + 3) != host))
    return errorResponse(403, "asked for by another page");
  *good = true;
  return HttpResponse();
}

HttpResponse HttpServer::Impl::respond(MHD_Connection* connection, const char* url,
                                       const char* method) {
  bool good = false;
  HttpResponse refusal = judged(connection, method, &good);
  if (!good) return refusal;
  HttpRequest request;
  request.method = strcmp(method, MHD_HTTP_METHOD_POST) == 0 ? HttpRequest::Method::kPost
                                                             : HttpRequest::Method::kGet;
  if (strlen(url) > kMostPathBytes) return errorResponse(414, "this address is too long");
  request.path = url;
  MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &Impl::takeArgument, &request);
  if (request.query.size() > kMostParameters) return errorResponse(400, "too many parameters");
  return answer_(request);
}

MHD_Result HttpServer::Impl::send(MHD_Connection* connection, HttpResponse answer) {
  const bool streams = answer.stream != nullptr;
  MHD_Response* response = nullptr;
  if (streams) {
    auto* stream = new std::shared_ptr<BodyStream>(answer.stream);
    const uint64_t length =
        answer.length < 0 ? MHD_SIZE_UNKNOWN : static_cast<uint64_t>(answer.length);
    response =
        MHD_create_response_from_callback(length, kStreamBlock, &readStream, stream, &freeStream);
    if (response == nullptr) freeStream(stream);
  } else {
    // Clients that do not take what they asked for would fill the memory with it.
    if (underWay_ + answer.body.size() > kMostUnderWay) answer = errorResponse(503, kTooMuch);
    auto* body = new Body(std::move(answer.body), &underWay_);
    response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->bytes.size(), body->bytes.data(), &freeBody, body);
    if (response == nullptr) freeBody(body);
  }
  if (response == nullptr) return MHD_NO;
  bool cached = false;
  for (const auto& header : answer.headers) {
    MHD_add_response_header(response, header.first.c_str(), header.second.c_str());
    cached = cached || strcasecmp(header.first.c_str(), MHD_HTTP_HEADER_CACHE_CONTROL) == 0;
  }
  for (const auto& header : kHeaders) MHD_add_response_header(response, header[0], header[1]);
  if (!cached) MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  if (!answer.type.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type.c_str());
  watch_.enters(connection,
                streams ? ConnectionWatch::Phase::kListening : ConnectionWatch::Phase::kAnswering);
  const MHD_Result queued =
      MHD_queue_response(connection, static_cast<unsigned>(answer.status), response);
  MHD_destroy_response(response);
  return queued;
}

MHD_Result HttpServer::Impl::handle(void* self, MHD_Connection* connection, const char* url,
                                    const char* method, const char* /*version*/,
                                    const char* /*data*/, size_t* dataSize, void** asked) {
  auto* server = static_cast<Impl*>(self);
  return orNoMemory(
      "HttpServer",
      [&]() -> MHD_Result {
        const std::string length = headerOf(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
        const bool hasBody = (!length.empty() && length != "0") ||
                             !headerOf(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).empty();
        if (*asked == &server->zeroByte_)
          return server->send(connection, errorResponse(404, "there is nothing at this address"));
        // Nothing that is asked here has a body.
        if (hasBody) {
          if (*asked != nullptr || *dataSize != 0) return MHD_NO;
          *asked = server;
          return server->send(connection, errorResponse(413, "a question here has no body"));
        }
        // The library wants to have shown the question once before it takes an answer.
        if (*asked == nullptr) {
          *asked = server;
          return MHD_YES;
        }
        return server->send(connection, server->respond(connection, url, method));
      },
      [] { return MHD_NO; });
}

HttpServer::HttpServer(Answer answer) : impl_(std::make_unique<Impl>(std::move(answer))) {}
HttpServer::~HttpServer() = default;

bool HttpServer::start(const HttpOptions& options, std::string* error) {
  return impl_->start(options, error);
}

void HttpServer::stop() { impl_->stop(); }
std::string HttpServer::address() const { return impl_->address(); }

}  // namespace tarn
