#include "media/serve/SoundMaker.h"

#include <algorithm>
#include <utility>

#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn {
namespace {

// What a row's end does not tell of its last block.
constexpr int64_t kBlockUs = 1000000;

// "mp4a.40." and the kind of AAC, which its configuration begins with.
std::string codecOf(const SoundFormat& format) {
  if (format.codec == SoundCodec::kOpus) return "opus";
  if (format.codec != SoundCodec::kAac || format.config.size() < 2) return "";
  const unsigned kind = format.config[0] >> 3;
  const unsigned longKind = 32 + ((format.config[0] & 7u) << 3 | format.config[1] >> 5);
  return "mp4a.40." + std::to_string(kind == 31 ? longKind : kind);
}

// The first frame that can be read.
bool firstFrame(const ServedRecording& recording, OutputSound* out) {
  RecordingReader reader;
  if (reader.open(recording.row) != 0) return false;
  std::vector<uint8_t> bytes;
  PictureEntry entry;
  SoundBlock block;
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes) || reader.isDamaged() ||
        !block.decode(bytes.data(), bytes.size()) || block.frames().empty())
      continue;
    const SoundFrame& frame = block.frames().front();
    *out = {block.format(), {frame.data, frame.data + frame.size}, frame.time, frame.samples};
    return true;
  }
  return false;
}

}  // namespace

std::shared_ptr<const SoundMaker::Description> SoundMaker::describe(
    const ServedRecording& recording) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const auto& one) {
      return one->streamID == recording.row.streamID;
    });
    if (found != kept_.end()) {
      kept_.splice(kept_.begin(), kept_, found);
      return kept_.front();
    }
  }
  auto first = std::make_shared<OutputSound>();
  if (!firstFrame(recording, first.get())) return nullptr;
  auto description = std::make_shared<Description>(
      Description{recording.row.streamID, codecOf(first->format), first});
  const std::lock_guard<std::mutex> lock(mutex_);
  kept_.push_front(description);
  if (kept_.size() > kKept) kept_.pop_back();
  return description;
}

std::vector<DB_STREAM> SoundMaker::rowsOf(const ServedRows& rows, int channel, int64_t fromUs,
                                          int64_t toUs) {
  std::vector<DB_STREAM> found;
  const auto all = rows.soundOf.find(channel);
  if (all == rows.soundOf.end()) return found;
  const std::vector<uint32_t>& places = all->second;
  const auto startOf = [&](uint32_t place) { return rows.recordings[place].startUs(); };
  auto at = std::lower_bound(places.begin(), places.end(), toUs,
                             [&](uint32_t place, int64_t us) { return startOf(place) < us; });
  // A recording is shorter than an hour, or the only one at its time.
  constexpr int64_t kLongestUs = int64_t{3600} * 1000000;
  while (at != places.begin()) {
    const ServedRecording& one = rows.recordings[*--at];
    if (one.isRunning() || one.endUs() + kBlockUs > fromUs) found.push_back(one.row);
    if (one.startUs() + kLongestUs < fromUs) break;
  }
  std::reverse(found.begin(), found.end());
  return found;
}

int64_t SoundMaker::safeUntil(const ServedRecording& recording) {
  RecordingReader reader;
  PictureEntry entry;
  if (reader.open(recording.row) != 0 || reader.pictureCount() == 0 ||
      !reader.picture(reader.pictureCount() - 1, &entry))
    return 0;
  return entry.presentation.totalMicros();
}

SoundFrames::SoundFrames(std::vector<DB_STREAM> rows, const SoundFormat& format, int64_t fromUs,
                         int64_t toUs)
    : sound_(std::move(rows), PictureTime::fromMicros(fromUs), PictureTime::fromMicros(toUs)),
      format_(format),
      fromUs_(fromUs),
      toUs_(toUs) {
  next();
}

void SoundFrames::next() {
  while (there_) {
    there_ = sound_.next() == ExportTrack::Result::kPiece;
    const int64_t at = there_ ? sound_.decodeUs() : 0;
    // What another format has is left out: a track has one.
    if (there_ && at >= fromUs_ && at < toUs_ && sound_.sound().format == format_) return;
  }
}

}  // namespace tarn
