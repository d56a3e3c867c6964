#include "media/serve/ExportAnswers.h"

#include <memory>
#include <utility>

#include "media/serve/Downloads.h"
#include "media/serve/ExportStream.h"
#include "media/serve/QueryReader.h"
#include "recorder/card/TimeText.h"

namespace tarn {
namespace {

constexpr int64_t kDayUs = int64_t{86400} * 1000000;
// A download begins with a key picture before its period, and ends with one behind it.
constexpr int64_t kBeforeUs = int64_t{600} * 1000000;
constexpr int64_t kBehindUs = int64_t{60} * 1000000;
constexpr char kMovieType[] = "video/mp4";
constexpr char kQuickTimeType[] = "video/quicktime";
constexpr char kSealed[] =
    "this server seals what it gives out, which takes a while: begin it with POST /api/downloads";
constexpr char kFormatChanges[] =
    "pictures or sound change their format in that time, and one movie has one: ask for what is "
    "before and behind it by itself, from ";

}  // namespace

// The first of the period that has another format than those before it; null where none has. A
// change within one breaks the download off.
const ServedRecording* ExportAnswers::otherFormat(const ServedRows& rows, int channel,
                                                  int64_t fromUs, int64_t toUs) {
  std::shared_ptr<const PieceMaker::Description> first;
  const auto found = rows.videoOf.find(channel);
  if (found == rows.videoOf.end()) return nullptr;
  for (uint32_t place : found->second) {
    const ServedRecording& one = rows.recordings[place];
    if (one.startUs() > toUs || (!one.isRunning() && one.endUs() < fromUs)) continue;
    const auto description = inits_->maker()->describe(one);
    if (description == nullptr) continue;
    if (first == nullptr) first = description;
    if (description->sequence != first->sequence) return &one;
  }
  return nullptr;
}

// The sound of a period, by its first recording that can be read; null where there is none. *other
// is the first that is coded in another way, null where none is.
std::shared_ptr<const SoundMaker::Description> ExportAnswers::soundOf(
    const ServedRows& rows, int channel, int64_t fromUs, int64_t toUs,
    const ServedRecording** other) {
  std::shared_ptr<const SoundMaker::Description> first;
  *other = nullptr;
  for (const DB_STREAM& row : SoundMaker::rowsOf(rows, channel, fromUs, toUs)) {
    const ServedRecording* recording = rows.find(row.streamID);
    const auto sound = recording != nullptr ? inits_->sound()->describe(*recording) : nullptr;
    if (first == nullptr) first = sound;
    if (sound == nullptr || sound->first->format == first->first->format) continue;
    *other = recording;
    break;
  }
  return first;
}

bool ExportAnswers::needsQuickTime(int channel, int64_t fromUs, int64_t toUs) {
  const ServedRecording* other = nullptr;
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const auto sound = soundOf(*rows, channel, fromUs, toUs, &other);
  return sound != nullptr && ExportStream::needsQuickTime({sound->first->format, {}});
}

HttpResponse ExportAnswers::exported(const HttpRequest& request) {
  QueryReader query(request, {"channel", "from", "to"});
  const int channel = query.channelNeeded();
  const int64_t fromUs = query.timeUsNeeded("from");
  const int64_t toUs = query.timeUsNeeded("to");
  if (toUs <= fromUs || toUs - fromUs > kDayUs) query.fail("the period is up to a day long");
  if (!query.ok()) return errorResponse(400, query.error());
  if (sealed_) return errorResponse(409, kSealed);
  const std::shared_ptr<const ServedRows> rows = follower_->rows();
  const ServedRecording* otherSound = nullptr;
  const auto described = soundOf(*rows, channel, fromUs, toUs, &otherSound);
  const ServedRecording* other = otherFormat(*rows, channel, fromUs, toUs);
  if (other == nullptr) other = otherSound;
  if (other != nullptr)
    return errorResponse(409,
                         kFormatChanges + TimeText::of(other->row.startDate, other->row.startMSec));
  auto walker = std::make_unique<PieceWalker>(rows, channel, PieceWalker::Kind::kPictures,
                                              PieceWalker::Formats::kOfEnds);
  if (!walker->toTime(fromUs)) return errorResponse(404, kNothingThere);
  ExportStream::SoundToo sound;
  if (described != nullptr) {
    sound.format = described->first->format;
    sound.rows = SoundMaker::rowsOf(*rows, channel, fromUs - kBeforeUs, toUs + kBehindUs);
  }
  const bool quickTime = ExportStream::needsQuickTime(sound);
  auto stream = std::make_shared<ExportStream>(std::move(walker), std::move(sound), toUs, writers_);
  if (!stream->begin()) return errorResponse(404, kNothingThere);
  HttpResponse response;
  response.type = quickTime ? kQuickTimeType : kMovieType;
  response.headers.emplace_back("Content-Disposition",
                                "attachment; filename=\"" +
                                    downloadName("channel" + std::to_string(channel), fromUs) +
                                    (quickTime ? ".mov" : ".mp4") + "\"");
  response.stream = stream;
  return response;
}

}  // namespace tarn
