#include "media/serve/VideoAnswers.h"

#include <algorithm>
#include <utility>

#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"

namespace tarn {
namespace {

constexpr int64_t kMostTold = 5000;
constexpr int64_t kUsuallyTold = 1000;
constexpr int64_t kMostPieces = 64;
constexpr int64_t kUsualPieces = 8;
constexpr uint32_t kMostReordered = 16;
constexpr int64_t kLeastWidth = 32;
constexpr int64_t kMostWidth = 1280;
constexpr int64_t kUsualWidth = 160;

// Pictures of one recording, as a list.
class PictureList {
 public:
  PictureList(int64_t fromUs, int64_t toUs, bool keysOnly, int64_t room)
      : fromUs_(fromUs), toUs_(toUs), keysOnly_(keysOnly), room_(room) {
    json_.beginObject().key("pictures").beginArray();
  }

  // False when there is no room for all of them.
  bool add(const ServedRecording& recording) {
    RecordingReader reader;
    if (reader.open(recording.row) != 0) return true;
    const int64_t first = reader.findPictureFrom(PictureTime::fromMicros(fromUs_));
    if (first < 0) return true;
    PictureEntry entry;
    for (auto i = static_cast<uint32_t>(first); i < reader.pictureCount(); ++i) {
      if (!reader.picture(i, &entry)) continue;
      const int64_t at = entry.presentation.totalMicros();
      if (entry.decodeTime().totalMicros() > toUs_) break;
      if (at < fromUs_ || at > toUs_ || (keysOnly_ && !entry.isKey())) continue;
      if (room_-- == 0) {
        nextUs_ = earliestFrom(&reader, i);
        return false;
      }
      json_.beginObject().key("timeMs").thousandths(at).key("key").boolean(entry.isKey());
      json_.key("recording").number(recording.row.streamID).key("index").number(i).end();
    }
    return true;
  }

  std::string take() {
    json_.end().key("next");
    nextUs_ < 0 ? json_.null() : json_.thousandths(nextUs_);
    return json_.end().take();
  }

 private:
  // Pictures lie in the order of decoding: one that is shown earlier may come later.
  static int64_t earliestFrom(RecordingReader* reader, uint32_t index) {
    int64_t earliest = INT64_MAX;
    PictureEntry entry;
    for (uint32_t i = index; i < index + kMostReordered; ++i) {
      if (reader->picture(i, &entry))
        earliest = std::min(earliest, entry.presentation.totalMicros());
    }
    return earliest;
  }

  const int64_t fromUs_;
  const int64_t toUs_;
  const bool keysOnly_;
  int64_t room_;
  int64_t nextUs_ = -1;
  JsonText json_;
};

}  // namespace

HttpResponse VideoAnswers::pictures(const HttpRequest& request) {
  QueryReader query(request, {"channel", "from", "to", "keys", "limit"});
  const int channel = query.channelNeeded();
  const int64_t fromUs = query.timeUsNeeded("from");
  const int64_t toUs = query.timeUsNeeded("to");
  const bool keysOnly = query.number("keys", 0, 1, 0) == 1;
  const int64_t room = query.number("limit", 1, kMostTold, kUsuallyTold);
  if (!query.ok()) return errorResponse(400, query.error());
  const Turns::Turn turn(turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  PictureList list(fromUs, toUs, keysOnly, room);
  const auto found = rows->videoOf.find(channel);
  if (found == rows->videoOf.end()) return errorResponse(404, kNothingThere);
  for (uint32_t place : found->second) {
    const ServedRecording& one = rows->recordings[place];
    if (one.startUs() > toUs || (!one.isRunning() && one.endUs() + 1000 < fromUs)) continue;
    if (!list.add(one)) break;
  }
  return bodyOf("application/json", list.take());
}

void VideoAnswers::addSegment(JsonText* json, int channel, const PlaylistPiece& one,
                              const std::string& codec, bool keysOnly, bool sound) {
  const std::string folder = "/hls/ch" + std::to_string(channel) + "/";
  const Piece& piece = one.piece;
  PiecePlace place = placeOf(one, keysOnly);
  place.sound = sound;
  json->beginObject().key("recording").number(piece.streamID).key("first").number(piece.first);
  json->key("count").number(piece.count).key("fromMs").thousandths(piece.fromUs);
  json->key("toMs").thousandths(piece.toUs).key("key").boolean(piece.key);
  json->key("discontinuity").boolean(piece.discontinuity).key("codec").text(codec);
  json->key("init").text(folder + nameOf(one.init));
  json->key("media").text(folder + nameOf(place)).end();
}

// The picture that an answer said as the next one.
bool VideoAnswers::readAfter(QueryReader* query, PictureAt* after) {
  std::string text = query->text("after");
  if (takeNumber(&text, '-', &after->streamID) && takeNumber(&text, '\0', &after->index))
    return true;
  query->fail("after is what an answer said as next");
  return false;
}

bool VideoAnswers::place(PieceWalker* walker, QueryReader* query, const PictureAt& after) {
  if (query->has("live")) return walker->toLive(0);
  if (query->has("after")) return walker->toPicture(after.streamID, after.index);
  return walker->toTime(query->timeUs("from").value_or(0));
}

HttpResponse VideoAnswers::segments(const HttpRequest& request) {
  QueryReader query(request, {"channel", "from", "after", "live", "keys", "sound", "limit"});
  const int channel = query.channelNeeded();
  query.number("live", 1, 1);
  query.timeUs("from");
  const bool keysOnly = query.number("keys", 0, 1, 0) == 1;
  const bool sound = query.number("sound", 0, 1, 0) == 1;
  if (keysOnly && sound) query.fail("sound has no key pictures");
  int64_t room = query.number("limit", 1, kMostPieces, kUsualPieces);
  if (query.has("from") + query.has("after") + query.has("live") != 1)
    query.fail("say one of from, after and live");
  const bool behind = query.has("after");
  PictureAt after;
  if (behind) readAfter(&query, &after);
  if (!query.ok()) return errorResponse(400, query.error());
  const bool newest =
      query.has("live") || (behind && follower_->isNewest(after.streamID, after.index));
  const Turns::Turn turn(turns_, newest ? Turns::Of::kNewest : Turns::Of::kCard);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  if ((sound ? rows->soundOf : rows->videoOf).count(channel) == 0)
    return errorResponse(404, kNothingThere);
  using Kind = PieceWalker::Kind;
  PieceWalker walker(rows, channel, sound ? Kind::kSound : Kind::kPictures);
  const bool placed = place(&walker, &query, after);
  JsonText json;
  json.beginObject().key("segments").beginArray();
  PlaylistPiece one;
  bool more = placed;
  while (more && room > 0) {
    more = walker.next(false, &one.piece);
    if (!more || (keysOnly && !one.piece.key)) continue;
    const PieceInits::Init init =
        sound ? inits_->ofSound(*rows, one.piece.streamID)
              : inits_->ofPictures(*rows, one.piece.streamID, one.piece.format);
    one.init = init.place;
    if (init.place.isNone()) continue;
    addSegment(&json, channel, one, init.codec, keysOnly, sound);
    --room;
  }
  json.end().key("next");
  placed   ? json.text(std::to_string(walker.streamID()) + "-" + std::to_string(walker.index()))
  : behind ? json.text(query.text("after"))
           : json.null();
  json.key("end").boolean(!more).end();
  return bodyOf("application/json", json.take());
}

HttpResponse VideoAnswers::thumbnail(const HttpRequest& request) {
  QueryReader query(request, {"channel", "at", "width"});
  const int channel = query.channelNeeded();
  const int64_t at = query.timeUsNeeded("at");
  const auto width =
      static_cast<uint32_t>(query.number("width", kLeastWidth, kMostWidth, kUsualWidth));
  if (!query.ok()) return errorResponse(400, query.error());
  const Turns::Turn turn(turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  PieceWalker walker(follower_->rows(), channel);
  PictureEntry entry;
  if (!walker.toKeyBefore(at) || !walker.reader()->picture(walker.index(), &entry))
    return errorResponse(404, kNothingThere);
  auto jpeg = thumbnails_.find(walker.streamID(), walker.index(), width);
  std::vector<uint8_t> annexB;
  if (jpeg == nullptr && walker.reader()->readPicture(entry, &annexB))
    jpeg = thumbnails_.make(walker.streamID(), walker.index(), width, annexB);
  if (jpeg == nullptr) return errorResponse(503, "this picture cannot be decoded");
  HttpResponse response = bodyOf("image/jpeg", *jpeg);
  JsonText time;
  response.headers.emplace_back("X-Picture-Time",
                                time.thousandths(entry.presentation.totalMicros()).take());
  response.headers.emplace_back("Cache-Control", kCached);
  return response;
}

}  // namespace tarn
