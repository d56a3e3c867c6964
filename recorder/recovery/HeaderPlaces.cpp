#include "recorder/recovery/HeaderPlaces.h"

#include <fcntl.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingIndex.h"

namespace tarn {
namespace {

// The places of fewer are found before a thread has begun.
constexpr size_t kFewChunks = 16;

}  // namespace

HeaderPlaces::~HeaderPlaces() { stop(); }

void HeaderPlaces::note(const DB_STREAM& row) {
  Ends& ends = chunks_.try_emplace(row.chunkID, Ends{row, row}).first->second;
  if (row.streamID < ends.oldest.streamID) ends.oldest = row;
  if (row.streamID > ends.newest.streamID) ends.newest = row;
}

std::vector<uint64_t> HeaderPlaces::places(const CardFamily& pictures) const {
  std::vector<uint64_t> places;
  const auto add = [&](const DB_STREAM& row, uint64_t start, uint32_t behind) {
    const uint32_t at = ringAdvance(row.chunkOffset, behind, pictures.chunkSize);
    places.push_back(start + at - at % RecordingIndex::kBlock);
  };
  for (const auto& [chunk, ends] : chunks_) {
    if (chunk >= pictures.chunks) continue;
    const uint64_t start = pictures.startByte() + uint64_t{chunk} * pictures.chunkSize;
    for (const DB_STREAM& row : {ends.oldest, ends.newest}) {
      if (row.chunkOffset >= pictures.chunkSize || row.chunkSize > pictures.chunkSize) continue;
      add(row, start, 0);
      // The rebuild of the management data reads a block from the header on, wherever that lies.
      if (pictures.chunkSize - row.chunkOffset > RecordingIndex::kBlock) {
        add(row, start, RecordingIndex::kBlock - 1);
      }
      if (row.chunkSize > kRecordSize) add(row, start, row.chunkSize - kRecordSize);
    }
  }
  places.erase(std::unique(places.begin(), places.end()), places.end());
  return places;
}

void HeaderPlaces::askAhead() {
  if (thread_.joinable() || chunks_.size() < kFewChunks) return;
  CardInfo card;
  std::string error;
  const char* device = deviceName(kRecorderPartition);
  if (card.read(device, &error) != 0) return;
  device_.reset(open(device, O_RDONLY | O_CLOEXEC));
  if (!device_.valid()) return;
  try {
    thread_ = std::thread([this, wanted = places(card.family(kFilePicture))] { ask(wanted); });
  } catch (const std::exception&) {
    return;  // they are read when they are wanted
  }
}

void HeaderPlaces::ask(const std::vector<uint64_t>& places) {
  for (const uint64_t place : places) {
    if (stopped_) return;
    posix_fadvise(device_.get(), static_cast<off_t>(place), RecordingIndex::kBlock,
                  POSIX_FADV_WILLNEED);
  }
}

void HeaderPlaces::stop() {
  stopped_ = true;
  if (thread_.joinable()) thread_.join();
}

}  // namespace tarn
