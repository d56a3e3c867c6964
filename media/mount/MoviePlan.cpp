#include "media/mount/MoviePlan.h"

#include <fcntl.h>

#include <algorithm>

#include "fat/ChunkFiles.h"
#include "media/export/PeriodEnds.h"
#include "media/export/SoundExport.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

// Everything of the head that does not grow with the movie, parameter sets included.
constexpr uint64_t kFixedRoom = 16 * 1024;
// Of a picture: size, decode time, presentation, key, and a place of its own with its description.
constexpr uint64_t kPictureRoom = 4 + 8 + 8 + 4 + 8 + 12;
// Of a frame: size and length; and of a run of them.
constexpr uint64_t kFrameRoom = 4 + 8;
constexpr uint64_t kRunRoom = 8 + 12;
constexpr uint64_t kMostRun = uint64_t{1} << 20;
// In front of the head and of the data, and a box behind them.
constexpr uint64_t kBoxes = 64 + 16;
// No codec that an .mp4 holds has frames shorter than 2.5 ms.
constexpr int64_t kShortestFrameUs = 2500;
constexpr uint64_t kLeastFrame = 5;  // bytes in a block
// A block is half a second; one that was begun before the period and one more.
constexpr int64_t kBlockUs = 2000000;
constexpr uint64_t kSoundOnItsWay = 256 * 1024;

PictureTime startOf(const DB_STREAM& row) { return {row.startDate, row.startMSec * 1000u}; }

// One that runs has no end yet.
PictureTime soundEndOf(const DB_STREAM& row) {
  return row.recSize == 0 ? PictureTime{UINT32_MAX, 999999} : soundEndBeside(row);
}

PictureTime moved(PictureTime time, int64_t us) {
  return PictureTime::fromMicros(time.totalMicros() + us);
}

// By their bytes, and by the time of the recordings that they are in.
uint64_t framesOf(const MoviePlan& plan) {
  int64_t first = INT64_MAX;
  int64_t last = 0;
  for (const DB_STREAM& row : plan.sound) {
    first = std::min(first, startOf(row).totalMicros());
    last = std::max(last, soundEndOf(row).totalMicros());
  }
  first = std::max(first, plan.soundFrom.totalMicros());
  last = std::min(last, plan.soundTo.totalMicros());
  const int64_t us = std::max(last - first, int64_t{0}) + 2 * kBlockUs;
  return std::min(plan.soundBytes / kLeastFrame, static_cast<uint64_t>(us / kShortestFrameUs));
}

}  // namespace

uint64_t MoviePlan::headRoom() const {
  const uint64_t runs = std::min(soundFrames, pictures + soundBytes / kMostRun + 1);
  return kFixedRoom + pictures * kPictureRoom + soundFrames * kFrameRoom + runs * kRunRoom;
}

uint64_t MoviePlan::size() const {
  if (pictures == 0 && soundBytes == 0) return 0;
  return kBoxes + headRoom() + bytes + pictures * kSampleRoom + soundBytes;
}

bool MoviePlanner::fail(const DB_STREAM& row, const char* why) {
  error_ = "recording " + std::to_string(row.streamID) + " " + why;
  return false;
}

// Entries from part->first to part->end, or to the end of the period.
bool MoviePlanner::walk(RecordingReader* reader, MoviePart* part, const PictureTime* to,
                        MoviePlan* plan) {
  uint32_t index = part->first;
  for (; index < part->end; ++index) {
    PictureEntry entry;
    if (!reader->picture(index, &entry)) {
      if (reader->wasRefused()) return fail(part->row, "is not delivered by the card now");
      continue;
    }
    if (to != nullptr && *to < entry.presentation && !neededUpTo(*to, reader, index)) break;
    ++plan->pictures;
    plan->bytes += entry.size;
  }
  part->end = index;
  return true;
}

ChunkSource* MoviePlanner::chunkOf(const DB_STREAM& row) {
  if (chunk_ != nullptr && chunk_->isOpen() && chunkID_ == row.chunkID) return chunk_.get();
  chunk_ = std::make_unique<ChunkSource>(kFilePicture, row.chunkID, O_RDONLY);
  chunkID_ = row.chunkID;
  return chunk_.get();
}

// The header of a closed recording has the sum of its entries.
bool MoviePlanner::countPictures(MoviePart* part, MoviePlan* plan) {
  const DB_STREAM& row = part->row;
  ChunkSource* const chunk = chunkOf(row);
  RecordingIndex index(row, chunk, chunk->streamSize());
  StreamHeader header;
  const Delivery got = index.header(&header);
  if (got == Delivery::kRefused) return fail(row, "is not delivered by the card now");
  if (got == Delivery::kGood && row.recSize != 0) {
    part->end = std::min(row.recSize, index.capacity());
    plan->pictures += part->end;
    plan->bytes += header.dataSize;
    return true;
  }
  RecordingReader reader;
  if (reader.open(row) != 0) return fail(row, "cannot be read");
  part->end = reader.pictureCount();
  return walk(&reader, part, nullptr, plan);
}

// G.711 has a byte for each sample, and silence in its gaps.
bool MoviePlanner::countSamples(RecordingReader* reader, const DB_STREAM& row, MoviePlan* plan) {
  PictureEntry entry;
  std::vector<uint8_t> bytes;
  SoundBlock block;
  for (uint32_t i = 0; i < reader->pictureCount(); ++i) {
    const bool read = reader->picture(i, &entry) && reader->readPicture(entry, &bytes);
    if (!read && reader->wasRefused()) return fail(row, "is not delivered by the card now");
    if (!read || !block.decode(bytes.data(), bytes.size())) continue;
    const int64_t us =
        std::max(plan->soundTo.totalMicros() - plan->soundFrom.totalMicros() + kBlockUs, kBlockUs);
    const uint64_t samples = static_cast<uint64_t>(us) * block.format().sampleRate / 1000000;
    plan->soundBytes = std::max(plan->soundBytes, samples * block.format().channels);
    break;
  }
  return true;
}

bool MoviePlanner::countSound(const DB_STREAM& row, MoviePlan* plan) {
  RecordingReader reader;
  StreamHeader header;
  if (reader.open(row) != 0) {
    const bool refused = RecordingIndex(row).header(&header) == Delivery::kRefused;
    return !refused || fail(row, "is not delivered by the card now");
  }
  const int64_t before = reader.findKeyPictureBefore(moved(plan->soundFrom, -kBlockUs));
  MoviePart part = {row, before > 0 ? static_cast<uint32_t>(before) : 0, reader.pictureCount()};
  const PictureTime to = moved(plan->soundTo, kBlockUs);
  MoviePlan counted;
  if (!walk(&reader, &part, &to, &counted)) return false;
  plan->soundBytes += counted.bytes;
  return !plan->quickTime || countSamples(&reader, row, plan);
}

bool MoviePlanner::addSound(const std::vector<DB_STREAM>& beside, PictureTime from, PictureTime to,
                            MoviePlan* plan) {
  plan->soundFrom = from;
  plan->soundTo = to;
  const PictureTime lead = moved(from, -SoundExport::kLeadUs);
  for (const DB_STREAM& row : beside) {
    if (!showsAnyOf(row, lead, to)) continue;
    const SoundCodec codec = soundCodecOf(row);
    if (plan->sound.empty())
      plan->quickTime = codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw;
    plan->sound.push_back(row);
  }
  for (const DB_STREAM& row : plan->sound) {
    if (!countSound(row, plan)) return false;
  }
  // Sound may become safe between the plan and its movie.
  if (!plan->stable && !plan->sound.empty()) plan->soundBytes += kSoundOnItsWay;
  plan->soundFrames = framesOf(*plan);
  return true;
}

// Of a recording that runs: sound beside the pictures that are safe, and no more.
bool MoviePlanner::endWithPictures(const MoviePart& part, PictureTime* to) {
  RecordingReader reader;
  PictureEntry last;
  if (part.end == 0 || reader.open(part.row) != 0 || !reader.picture(part.end - 1, &last))
    return fail(part.row, "has no picture yet that is safe");
  *to = std::min(*to, moved(last.presentation, SoundExport::kLeadUs));
  return true;
}

bool MoviePlanner::planRecording(const DB_STREAM& row, const std::vector<DB_STREAM>& beside,
                                 MoviePlan* plan) {
  *plan = MoviePlan();
  plan->stable = row.recSize != 0;
  PictureTime to = soundEndOf(row);
  if (isSound(row)) return addSound({row}, startOf(row), to, plan);
  plan->parts.push_back({row, 0, 0});
  if (!countPictures(&plan->parts.back(), plan)) return false;
  if (plan->pictures == 0 && row.recSize == 0) return true;  // nothing is safe yet
  if (row.recSize == 0 && !endWithPictures(plan->parts.back(), &to)) return false;
  return addSound(beside, startOf(row), to, plan);
}

bool MoviePlanner::planPeriod(const std::vector<DB_STREAM>& rows,
                              const std::vector<DB_STREAM>& beside, PictureTime from,
                              PictureTime to, MoviePlan* plan) {
  *plan = MoviePlan();
  for (const DB_STREAM& row : rows) {
    RecordingReader reader;
    if (reader.open(row) != 0) return fail(row, "cannot be read");
    const int64_t key = plan->pictures == 0 ? reader.findKeyPictureBefore(from) : 0;
    MoviePart part = {row, key > 0 ? static_cast<uint32_t>(key) : 0, reader.pictureCount()};
    if (!walk(&reader, &part, &to, plan)) return false;
    plan->stable = plan->stable && row.recSize != 0;
    if (part.first < part.end) plan->parts.push_back(part);
  }
  if (plan->parts.empty()) {
    error_ = "no picture of that time can be read";
    return false;
  }
  const MoviePart& last = plan->parts.back();
  to = std::min(to, soundEndOf(last.row));
  if (last.row.recSize == 0 && !endWithPictures(last, &to)) return false;
  return addSound(beside, std::max(from, startOf(plan->parts.front().row)), to, plan);
}

}  // namespace tarn
