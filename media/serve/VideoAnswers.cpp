#include "media/serve/VideoAnswers.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include "media/MonotonicTime.h"
#include "media/serve/ExportStream.h"
#include "media/serve/JsonText.h"
#include "media/serve/QueryReader.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

constexpr int64_t kDayUs = int64_t{86400} * 1000000;
constexpr int64_t kMostTold = 5000;
constexpr int64_t kUsuallyTold = 1000;
constexpr int64_t kMostPieces = 64;
constexpr int64_t kUsualPieces = 8;
constexpr uint32_t kMostAsked = 3000;  // pictures of a piece
constexpr uint32_t kMostReordered = 16;
constexpr size_t kKnownInits = 4096;
constexpr int64_t kLeastWidth = 32;
constexpr int64_t kMostWidth = 1280;
constexpr int64_t kUsualWidth = 160;
constexpr char kMovieType[] = "video/mp4";
constexpr char kPlaylistType[] = "application/vnd.apple.mpegurl";
// What a recording holds does not change, but for a clock that becomes known.
constexpr char kCached[] = "private, max-age=60";

constexpr char kNothingThere[] = "nothing was recorded there";
constexpr char kNothingHere[] = "there is nothing at this address";
constexpr char kFormatChanges[] =
    "the pictures change their format in that time, and one movie has one: ask for what is before "
    "and behind it by itself, from ";
constexpr char kTooBusy[] = "too many ask at once: try again in a moment";

HttpResponse bodyOf(const char* type, std::string body) {
  HttpResponse response;
  response.type = type;
  response.body = std::move(body);
  return response;
}

// Digits up to a mark, or to the end: what is left behind the mark stays in *text.
bool takeNumber(std::string* text, char mark, uint32_t* value) {
  const size_t end = mark == '\0' ? text->size() : text->find(mark);
  if (end == std::string::npos || end == 0 || end > 10) return false;
  uint64_t number = 0;
  for (size_t i = 0; i < end; ++i) {
    const char digit = (*text)[i];
    if (digit < '0' || digit > '9') return false;
    number = number * 10 + static_cast<uint64_t>(digit - '0');
  }
  text->erase(0, mark == '\0' ? end : end + 1);
  *value = static_cast<uint32_t>(number);
  return number <= UINT32_MAX;
}

bool takeWord(std::string* text, const std::string& word) {
  if (text->compare(0, word.size(), word) != 0) return false;
  text->erase(0, word.size());
  return true;
}

bool takeEnding(std::string* text, const std::string& ending) {
  if (text->size() < ending.size()) return false;
  const size_t at = text->size() - ending.size();
  if (text->compare(at, ending.size(), ending) != 0) return false;
  text->erase(at);
  return true;
}

std::string fileName(int channel, int64_t us) {
  const auto seconds = static_cast<time_t>(us / 1000000);
  struct tm local = {};
  char text[80];
  const int length = snprintf(text, sizeof text, "channel%d-", channel);
  strftime(text + length, sizeof text - static_cast<size_t>(length), "%Y%m%d-%H%M%S.mp4",
           localtime_r(&seconds, &local));
  return text;
}

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
  const Turns::Turn turn(&turns_);
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

// Recordings of a channel whose parameter sets are the same share the beginning of the first that
// was asked for: a player that is given another one throws away what it cannot decode alone.
VideoAnswers::Init VideoAnswers::initOf(const ServedRows& rows, uint32_t streamID) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto known = inits_.find(streamID);
  if (known != inits_.end() && rows.find(known->second.streamID) != nullptr) return known->second;
  const ServedRecording* recording = rows.find(streamID);
  const auto description = recording != nullptr ? maker_.describe(*recording) : nullptr;
  if (description == nullptr) return Init();
  if (inits_.size() >= kKnownInits) inits_.clear();
  if (initOfSets_.size() >= kKnownInits) initOfSets_.clear();
  uint32_t& shared = initOfSets_[std::to_string(recording->channel) + ":" + description->sets];
  if (shared == 0 || rows.find(shared) == nullptr) shared = streamID;
  return inits_[streamID] = {shared, description->codec};
}

void VideoAnswers::addSegment(JsonText* json, int channel, const Piece& piece, const Init& init,
                              bool keysOnly) {
  const std::string folder = "/hls/ch" + std::to_string(channel) + "/";
  json->beginObject().key("recording").number(piece.streamID).key("first").number(piece.first);
  json->key("count").number(piece.count).key("fromMs").thousandths(piece.fromUs);
  json->key("toMs").thousandths(piece.toUs).key("key").boolean(piece.key);
  json->key("discontinuity").boolean(piece.discontinuity).key("codec").text(init.codec);
  json->key("init").text(folder + initName(init.streamID));
  json->key("media").text(folder + pieceName(piece, keysOnly)).end();
}

bool VideoAnswers::place(PieceWalker* walker, QueryReader* query, bool* behind) {
  *behind = query->has("after");
  if (query->has("live")) return walker->toLive(0);
  if (!*behind) return walker->toTime(query->timeUs("from").value_or(0));
  std::string after = query->text("after");
  uint32_t streamID = 0, index = 0;
  if (takeNumber(&after, '-', &streamID) && takeNumber(&after, '\0', &index))
    return walker->toPicture(streamID, index);
  query->fail("after is what an answer said as next");
  return false;
}

HttpResponse VideoAnswers::segments(const HttpRequest& request) {
  QueryReader query(request, {"channel", "from", "after", "live", "keys", "limit"});
  const int channel = query.channelNeeded();
  query.number("live", 1, 1);
  query.timeUs("from");
  const bool keysOnly = query.number("keys", 0, 1, 0) == 1;
  int64_t room = query.number("limit", 1, kMostPieces, kUsualPieces);
  if (query.has("from") + query.has("after") + query.has("live") != 1)
    query.fail("say one of from, after and live");
  if (!query.ok()) return errorResponse(400, query.error());
  const Turns::Turn turn(&turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  if (rows->videoOf.count(channel) == 0) return errorResponse(404, kNothingThere);
  PieceWalker walker(rows, channel);
  bool behind = false;
  const bool placed = place(&walker, &query, &behind);
  if (!query.ok()) return errorResponse(400, query.error());
  JsonText json;
  json.beginObject().key("segments").beginArray();
  Piece piece;
  bool more = placed;
  while (more && room > 0) {
    more = walker.next(false, &piece);
    const Init init = more ? initOf(*rows, piece.streamID) : Init();
    if (!more || init.streamID == 0 || (keysOnly && !piece.key)) continue;
    addSegment(&json, channel, piece, init, keysOnly);
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
  const Turns::Turn turn(&turns_);
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

// The first of the period that has another format than those before it; null where none has. A
// change within one breaks the download off.
const ServedRecording* VideoAnswers::otherFormat(const ServedRows& rows, int channel,
                                                 int64_t fromUs, int64_t toUs) {
  std::shared_ptr<const PieceMaker::Description> first;
  const auto found = rows.videoOf.find(channel);
  if (found == rows.videoOf.end()) return nullptr;
  for (uint32_t place : found->second) {
    const ServedRecording& one = rows.recordings[place];
    if (one.startUs() > toUs || (!one.isRunning() && one.endUs() < fromUs)) continue;
    const auto description = maker_.describe(one);
    if (description == nullptr) continue;
    if (first == nullptr) first = description;
    if (description->sequence != first->sequence) return &one;
  }
  return nullptr;
}

HttpResponse VideoAnswers::exported(const HttpRequest& request) {
  QueryReader query(request, {"channel", "from", "to"});
  const int channel = query.channelNeeded();
  const int64_t fromUs = query.timeUsNeeded("from");
  const int64_t toUs = query.timeUsNeeded("to");
  if (toUs <= fromUs || toUs - fromUs > kDayUs) query.fail("the period is up to a day long");
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const ServedRecording* other = otherFormat(*rows, channel, fromUs, toUs);
  if (other != nullptr)
    return errorResponse(409,
                         kFormatChanges + TimeText::of(other->row.startDate, other->row.startMSec));
  auto walker = std::make_unique<PieceWalker>(rows, channel);
  if (!walker->toTime(fromUs)) return errorResponse(404, kNothingThere);
  auto stream = std::make_shared<ExportStream>(std::move(walker), toUs);
  if (!stream->begin()) return errorResponse(404, kNothingThere);
  HttpResponse response;
  response.type = kMovieType;
  response.headers.emplace_back("Content-Disposition",
                                "attachment; filename=\"" + fileName(channel, fromUs) + "\"");
  response.stream = stream;
  return response;
}

HttpResponse VideoAnswers::live(int channel, const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const std::lock_guard<std::mutex> lock(liveMutex_);
  if (rows->videoOf.count(channel) == 0) return errorResponse(404, kNothingThere);
  LivePlaylist& list = live_[channel];
  list.refresh(rows, channel, monotonicUs(),
               [&](uint32_t streamID) { return initOf(*rows, streamID).streamID; });
  if (list.isEmpty()) return errorResponse(404, "nothing is being recorded on this channel");
  return bodyOf(kPlaylistType, list.text());
}

HttpResponse VideoAnswers::period(int channel, const HttpRequest& request) {
  QueryReader query(request, {"from", "to"});
  const int64_t fromUs = query.timeUsNeeded("from");
  const int64_t toUs = query.timeUsNeeded("to");
  if (toUs <= fromUs || toUs - fromUs > kDayUs) query.fail("the period is up to a day long");
  if (!query.ok()) return errorResponse(400, query.error());
  const Turns::Turn turn(&turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  PieceWalker walker(rows, channel);
  std::vector<PlaylistPiece> pieces;
  PlaylistPiece one;
  for (bool more = walker.toTime(fromUs); more;) {
    more = walker.next(false, &one.piece) && one.piece.fromUs <= toUs;
    one.initID = more ? initOf(*rows, one.piece.streamID).streamID : 0;
    if (one.initID != 0) pieces.push_back(one);
  }
  if (pieces.empty()) return errorResponse(404, kNothingThere);
  return bodyOf(kPlaylistType, playlistText(pieces, 0, 0, true));
}

HttpResponse VideoAnswers::init(int channel, const std::string& name, const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  std::string rest = name;
  uint32_t streamID = 0;
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const bool named = takeNumber(&rest, '\0', &streamID);
  const ServedRecording* recording = named ? rows->find(streamID) : nullptr;
  if (recording == nullptr || recording->channel != channel)
    return errorResponse(404, kNothingHere);
  const Turns::Turn turn(&turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const auto description = maker_.describe(*recording);
  std::string body, error;
  if (description == nullptr) return errorResponse(404, kNothingThere);
  if (!maker_.init(*description, &body, &error)) return errorResponse(503, error);
  HttpResponse response = bodyOf(kMovieType, std::move(body));
  response.headers.emplace_back("Cache-Control", kCached);
  return response;
}

HttpResponse VideoAnswers::media(int channel, const std::string& name, const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  std::string rest = name;
  const bool keysOnly = takeEnding(&rest, "-k");
  uint32_t streamID = 0, first = 0, count = 0;
  const bool named = takeNumber(&rest, '-', &streamID) && takeNumber(&rest, '-', &first) &&
                     takeNumber(&rest, '\0', &count) && count > 0 && count <= kMostAsked;
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const ServedRecording* recording = named ? rows->find(streamID) : nullptr;
  if (recording == nullptr || recording->channel != channel)
    return errorResponse(404, kNothingHere);
  const Turns::Turn turn(&turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  std::string body, error;
  if (!maker_.piece(*recording, first, count, keysOnly, &body, &error))
    return errorResponse(404, error);
  HttpResponse response = bodyOf("video/iso.segment", std::move(body));
  response.headers.emplace_back("Cache-Control", kCached);
  return response;
}

HttpResponse VideoAnswers::hls(const HttpRequest& request) {
  std::string rest = request.path;
  uint32_t channel = 0;
  if (!takeWord(&rest, "/hls/ch") || !takeNumber(&rest, '/', &channel) || channel > 127)
    return errorResponse(404, kNothingHere);
  const int number = static_cast<int>(channel);
  if (rest == "live.m3u8") return live(number, request);
  if (rest == "period.m3u8") return period(number, request);
  if (takeEnding(&rest, ".m4s")) return media(number, rest, request);
  if (takeWord(&rest, "init-") && takeEnding(&rest, ".mp4")) return init(number, rest, request);
  return errorResponse(404, kNothingHere);
}

}  // namespace tarn
