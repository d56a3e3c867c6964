#include "media/serve/ServeApi.h"

#include <cstring>
#include <utility>

#include "fat/ChunkFiles.h"
#include "media/DeviceCounts.h"
#include "media/serve/CardAnswers.h"
#include "media/serve/Downloads.h"
#include "media/serve/EventFeed.h"
#include "media/serve/ExportAnswers.h"
#include "media/serve/HlsAnswers.h"
#include "media/serve/LogAnswers.h"
#include "media/serve/QueryReader.h"
#include "media/serve/RowAnswers.h"
#include "media/serve/RowFollower.h"
#include "media/serve/VideoAnswers.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr char kNoSuchAddress[] = "there is nothing at this address";
constexpr char kIndex[] = "index.html";
constexpr int kAtATime = 4;

struct FileType {
  const char* ending;
  const char* type;
};
constexpr FileType kFileTypes[] = {{".html", "text/html; charset=utf-8"},
                                   {".css", "text/css; charset=utf-8"},
                                   {".js", "text/javascript; charset=utf-8"},
                                   {".svg", "image/svg+xml"},
                                   {".png", "image/png"},
                                   {".webmanifest", "application/manifest+json"}};

const char* typeOf(const std::string& name) {
  for (const FileType& one : kFileTypes) {
    const size_t length = strlen(one.ending);
    if (name.size() > length && name.compare(name.size() - length, length, one.ending) == 0)
      return one.type;
  }
  return "application/octet-stream";
}

}  // namespace

class ServeApi::Impl {
 public:
  Impl(const ServeSettings& settings, std::vector<PageFile> page)
      : settings_(settings), page_(std::move(page)) {}

  bool start(std::string* error) { return follower_.start(error); }
  void stop() {
    feed_.close();
    card_.stop();
    downloads_.stop();
    follower_.stop();
  }

  HttpResponse answer(const HttpRequest& request) {
    using Method = HttpRequest::Method;
    struct Route {
      const char* path;
      Method method;
      HttpResponse (Impl::*handler)(const HttpRequest&);
    };
    static constexpr Route kRoutes[] = {
        {"/api/card", Method::kGet, &Impl::card},
        {"/api/timeline", Method::kGet, &Impl::timeline},
        {"/api/recordings", Method::kGet, &Impl::recordings},
        {"/api/events", Method::kGet, &Impl::events},
        {"/api/log", Method::kGet, &Impl::log},
        {"/api/health", Method::kGet, &Impl::health},
        {"/api/check", Method::kGet, &Impl::check},
        {"/api/check", Method::kPost, &Impl::beginCheck},
        {"/api/pictures", Method::kGet, &Impl::pictures},
        {"/api/segments", Method::kGet, &Impl::segments},
        {"/api/thumbnail", Method::kGet, &Impl::thumbnail},
        {"/api/export", Method::kGet, &Impl::exported},
        {"/api/downloads", Method::kPost, &Impl::beginDownload},
        {"/api/downloads", Method::kGet, &Impl::download},
        {"/api/download", Method::kGet, &Impl::takeDownload},
        {"/api/download", Method::kPost, &Impl::giveUpDownload},
        {"/api/stream", Method::kGet, &Impl::stream},
        {"/metrics", Method::kGet, &Impl::metrics},
    };
    bool known = false;
    for (const Route& route : kRoutes) {
      if (request.path != route.path) continue;
      if (request.method == route.method) return (this->*route.handler)(request);
      known = true;
    }
    if (known) return errorResponse(405, "this address does not take that method");
    if (request.method != Method::kGet) return errorResponse(404, kNoSuchAddress);
    return request.path.rfind("/hls/", 0) == 0 ? hls_.answer(request) : page(request);
  }

 private:
  HttpResponse card(const HttpRequest& request) { return card_.card(request); }
  HttpResponse timeline(const HttpRequest& request) { return rows_.timeline(request); }
  HttpResponse recordings(const HttpRequest& request) { return rows_.recordings(request); }
  HttpResponse events(const HttpRequest& request) { return rows_.events(request); }
  HttpResponse log(const HttpRequest& request) { return log_.log(request); }
  HttpResponse health(const HttpRequest& request) { return card_.health(request); }
  HttpResponse check(const HttpRequest& request) { return card_.check(request); }
  HttpResponse beginCheck(const HttpRequest& request) { return card_.beginCheck(request); }
  HttpResponse pictures(const HttpRequest& request) { return video_.pictures(request); }
  HttpResponse segments(const HttpRequest& request) { return video_.segments(request); }
  HttpResponse thumbnail(const HttpRequest& request) { return video_.thumbnail(request); }
  HttpResponse exported(const HttpRequest& request) { return exports_.exported(request); }
  HttpResponse beginDownload(const HttpRequest& request) { return downloads_.begin(request); }
  HttpResponse download(const HttpRequest& request) { return downloads_.state(request); }
  HttpResponse takeDownload(const HttpRequest& request) { return downloads_.take(request); }
  HttpResponse giveUpDownload(const HttpRequest& request) { return downloads_.giveUp(request); }
  HttpResponse metrics(const HttpRequest& request) { return card_.metrics(request); }

  HttpResponse stream(const HttpRequest& request) {
    const QueryReader query(request, {});
    if (!query.ok()) return errorResponse(400, query.error());
    HttpResponse response;
    response.type = "text/event-stream";
    response.stream = feed_.listen();
    return response;
  }

  HttpResponse page(const HttpRequest& request) const {
    // A question may also have none: "GET ?a=1".
    if (request.path.rfind('/', 0) != 0) return errorResponse(404, kNoSuchAddress);
    const std::string name = request.path == "/" ? kIndex : request.path.substr(1);
    for (const PageFile& file : page_) {
      if (name != file.name) continue;
      HttpResponse response;
      response.type = typeOf(name);
      response.body.assign(reinterpret_cast<const char*>(file.data), file.size);
      return response;
    }
    return errorResponse(404, kNoSuchAddress);
  }

  const ServeSettings settings_;
  const std::vector<PageFile> page_;
  EventFeed feed_;
  RowFollower follower_{&feed_};
  RowAnswers rows_{&follower_};
  CardAnswers card_{settings_, &follower_, &rows_};
  LogAnswers log_;
  PieceInits inits_;
  WritersFirst writers_{DeviceCounts::folderOf(deviceName(kRecorderPartition))};
  Turns turns_{kAtATime, &writers_};  // of all that reads pictures
  VideoAnswers video_{&follower_, &inits_, &turns_};
  HlsAnswers hls_{&follower_, &inits_, &turns_};
  ExportAnswers exports_{&follower_, &inits_, &writers_, settings_.seals};
  Downloads downloads_{settings_.downloads, settings_.maker, &exports_, &writers_};
};

ServeApi::ServeApi(const ServeSettings& settings, std::vector<PageFile> page)
    : impl_(std::make_unique<Impl>(settings, std::move(page))) {}

ServeApi::~ServeApi() { stop(); }

bool ServeApi::start(std::string* error) { return impl_->start(error); }

void ServeApi::stop() { impl_->stop(); }

HttpResponse ServeApi::answer(const HttpRequest& request) noexcept {
  return orNoMemory(
      "ServeApi", [&] { return impl_->answer(request); },
      [] {
        HttpResponse response;
        response.status = 503;
        response.type.clear();
        return response;
      });
}

}  // namespace tarn
