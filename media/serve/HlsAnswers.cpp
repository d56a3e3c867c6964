#include "media/serve/HlsAnswers.h"

#include <utility>

#include "media/MonotonicTime.h"
#include "media/PictureFormat.h"
#include "media/serve/QueryReader.h"

namespace tarn {
namespace {

constexpr int64_t kDayUs = int64_t{86400} * 1000000;
// Of a longer period not every key picture is looked at.
constexpr int64_t kWholeLookUs = int64_t{3600} * 1000000;
// Sound that is so much later on the card than the pictures is not waited for.
constexpr int64_t kSoundLateUs = 4000000;
constexpr uint32_t kMostAsked = 3000;  // pictures of a piece
constexpr char kMovieType[] = "video/mp4";
constexpr char kSegmentType[] = "video/iso.segment";
constexpr char kPlaylistType[] = "application/vnd.apple.mpegurl";
constexpr char kNothingHere[] = "there is nothing at this address";
constexpr char kNothingRuns[] = "nothing is being recorded on this channel";

}  // namespace

// The newest picture of the channel that is safe; INT64_MAX when none is being recorded.
int64_t HlsAnswers::newestOf(const ServedRows& rows, int channel) {
  const std::vector<uint32_t>& places = rows.videoOf.at(channel);
  const ServedRecording& last = rows.recordings[places.back()];
  return last.isRunning() ? follower_->safe(last.row.streamID).lastUs : INT64_MAX;
}

// A piece that players have taken does not get its sound later.
LivePlaylist::Judgement HlsAnswers::judge(const ServedRows& rows, int channel,
                                          PlaylistPiece* piece) {
  if (!inits_->complete(rows, channel, piece, nullptr)) return LivePlaylist::Judgement::kLeaveOut;
  const int64_t toUs = piece->piece.toUs;
  const int64_t safeUs = newestOf(rows, channel);
  for (const DB_STREAM& row : SoundMaker::rowsOf(rows, channel, piece->piece.fromUs, toUs)) {
    const ServedRecording* sound = rows.find(row.streamID);
    if (piece->soundID == 0 || sound == nullptr || !sound->isRunning()) continue;
    if (SoundMaker::safeUntil(*sound) < toUs && safeUs - kSoundLateUs < toUs)
      return LivePlaylist::Judgement::kWait;
  }
  return LivePlaylist::Judgement::kTake;
}

HttpResponse HlsAnswers::master(int channel, const std::string& address,
                                const std::vector<PlaylistPiece>& pieces) {
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  std::vector<std::string> codecs;
  for (PlaylistPiece one : pieces) inits_->complete(*rows, channel, &one, &codecs);
  const InitPlace& first = pieces.front().init;
  const ServedRecording* recording = rows->find(first.streamID);
  const auto description =
      recording != nullptr ? inits_->maker()->describe(*recording, first.format) : nullptr;
  if (description == nullptr) return errorResponse(404, kNothingThere);
  return bodyOf(kPlaylistType,
                masterText(address, codecs, pieces, pictureSizeOf(description->first->annexB)));
}

HttpResponse HlsAnswers::live(int channel, const HttpRequest& request, bool asMaster) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  if (rows->videoOf.count(channel) == 0) return errorResponse(404, kNothingThere);
  std::vector<PlaylistPiece> pieces;
  {
    const std::lock_guard<std::mutex> lock(liveMutex_);
    LivePlaylist& list = live_[channel];
    list.refresh(rows, channel, monotonicUs(),
                 [&](PlaylistPiece* piece) { return judge(*rows, channel, piece); });
    if (list.isEmpty()) return errorResponse(404, kNothingRuns);
    if (!asMaster) return bodyOf(kPlaylistType, list.text());
    pieces = list.pieces();
  }
  return master(channel, "live.m3u8", pieces);
}

HttpResponse HlsAnswers::period(int channel, const HttpRequest& request, bool asMaster) {
  QueryReader query(request, {"from", "to"});
  const int64_t fromUs = query.timeUsNeeded("from");
  const int64_t toUs = query.timeUsNeeded("to");
  if (toUs <= fromUs || toUs - fromUs > kDayUs) query.fail("the period is up to a day long");
  if (!query.ok()) return errorResponse(400, query.error());
  const Turns::Turn turn(turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  using Formats = PieceWalker::Formats;
  PieceWalker walker(rows, channel, PieceWalker::Kind::kPictures,
                     toUs - fromUs > kWholeLookUs ? Formats::kOfEnds : Formats::kOfEveryKey);
  std::vector<PlaylistPiece> pieces;
  PlaylistPiece one;
  for (bool more = walker.toTime(fromUs); more;) {
    more = walker.next(false, &one.piece) && one.piece.fromUs <= toUs;
    if (more && inits_->complete(*rows, channel, &one, nullptr)) addPiece(&pieces, one);
  }
  if (pieces.empty()) return errorResponse(404, kNothingThere);
  if (!asMaster) return bodyOf(kPlaylistType, playlistText(pieces, 0, 0, true));
  const std::string address = "period.m3u8?from=" + query.text("from") + "&to=" + query.text("to");
  return master(channel, address, pieces);
}

// Of the channel; null where it has none such.
std::shared_ptr<const SoundMaker::Description> HlsAnswers::soundOf(const ServedRows& rows,
                                                                   int channel, uint32_t soundID) {
  const ServedRecording* recording = rows.find(soundID);
  if (recording == nullptr || recording->channel != channel || !isSound(recording->row))
    return nullptr;
  const auto sound = inits_->sound()->describe(*recording);
  return sound != nullptr && !sound->codec.empty() ? sound : nullptr;
}

HttpResponse HlsAnswers::init(int channel, const InitPlace& place, const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const ServedRecording* recording = rows->find(place.streamID);
  const bool listed = recording != nullptr && recording->channel == channel;
  if (place.isNone() || (place.streamID != 0 && (!listed || isSound(recording->row))))
    return errorResponse(404, kNothingHere);
  const Turns::Turn turn(turns_);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const auto pictures = listed ? inits_->maker()->describe(*recording, place.format) : nullptr;
  const auto sound = place.soundID != 0 ? soundOf(*rows, channel, place.soundID) : nullptr;
  if ((listed && pictures == nullptr) || (place.soundID != 0 && sound == nullptr))
    return errorResponse(404, kNothingThere);
  std::string body, error;
  if (!inits_->maker()->init(pictures.get(), sound.get(), &body, &error))
    return errorResponse(503, error);
  HttpResponse response = bodyOf(kMovieType, std::move(body));
  response.headers.emplace_back("Cache-Control", kCached);
  return response;
}

HttpResponse HlsAnswers::piece(int channel, const PiecePlace& place, const HttpRequest& request) {
  const QueryReader query(request, {});
  if (!query.ok()) return errorResponse(400, query.error());
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const ServedRecording* recording = rows->find(place.streamID);
  if (recording == nullptr || recording->channel != channel || place.count > kMostAsked ||
      isSound(recording->row) != place.sound)
    return errorResponse(404, kNothingHere);
  const bool newest = follower_->isNewest(place.streamID, place.first);
  const Turns::Turn turn(turns_, newest ? Turns::Of::kNewest : Turns::Of::kCard);
  if (!turn.came()) return errorResponse(503, kTooBusy);
  const uint32_t soundID = place.sound ? place.streamID : place.soundID;
  const auto sound = soundID != 0 ? soundOf(*rows, channel, soundID) : nullptr;
  if (soundID != 0 && sound == nullptr) return errorResponse(404, kNothingThere);
  std::string body, error;
  const auto rowsOf = [&](int64_t fromUs, int64_t toUs) {
    return SoundMaker::rowsOf(*rows, channel, fromUs, toUs);
  };
  const bool made =
      place.sound ? inits_->maker()->soundPiece(*recording, place, *sound, &body, &error)
                  : inits_->maker()->piece(*recording, place, sound.get(), rowsOf, &body, &error);
  if (!made) return errorResponse(404, error);
  HttpResponse response = bodyOf(kSegmentType, std::move(body));
  response.headers.emplace_back("Cache-Control", kCached);
  return response;
}

HttpResponse HlsAnswers::answer(const HttpRequest& request) {
  std::string rest = request.path;
  uint32_t channel = 0;
  if (!takeWord(&rest, "/hls/ch") || !takeNumber(&rest, '/', &channel) || channel > 127)
    return errorResponse(404, kNothingHere);
  const int number = static_cast<int>(channel);
  if (rest == "live.m3u8") return live(number, request, false);
  if (rest == "live-master.m3u8") return live(number, request, true);
  if (rest == "period.m3u8") return period(number, request, false);
  if (rest == "period-master.m3u8") return period(number, request, true);
  PiecePlace place;
  if (readName(rest, &place)) return piece(number, place, request);
  InitPlace beginning;
  if (readName(rest, &beginning)) return init(number, beginning, request);
  return errorResponse(404, kNothingHere);
}

}  // namespace tarn
