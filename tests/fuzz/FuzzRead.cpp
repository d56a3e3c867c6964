// The pictures of recordings, and the sound beside them, as an export and a player read them.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundChunks.h"
#include "recorder/recovery/StartUp.h"

using namespace tarn_fuzz;

namespace {

constexpr uint32_t kChunkBytes = 64 * 1024;

const std::vector<DB_STREAM>& rows() {
  static const std::vector<DB_STREAM> rows = [] {
    if (!tarn::StartUp().run().ok()) abort();
    std::vector<DB_STREAM> all = tarn::streamsOfPeriod(0, UINT32_MAX);
    const auto sounds = std::count_if(all.begin(), all.end(), tarn::isSound);
    if (all.size() < 3 || sounds == 0) {
      fprintf(stderr, "%zu recordings, %zu of sound\n", all.size(), static_cast<size_t>(sounds));
      abort();
    }
    FuzzCard::get().restore();
    return all;
  }();
  return rows;
}

void readAll(const DB_STREAM& row) {
  tarn::RecordingReader reader;
  if (reader.open(row) != 0) return;
  reader.refresh();
  reader.findKeyPictureBefore({row.startDate + 1, 0});
  reader.findPictureFrom({row.startDate + 1, 0});
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    tarn::PictureEntry entry;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes)) continue;
    reader.isDamaged();
    if (bytes.size() > kChunkBytes) abort();
    tarn::SoundBlock block;
    if (tarn::isSound(row) && block.decode(bytes.data(), bytes.size()) != !block.frames().empty())
      abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<DB_STREAM>& recordings = rows();
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kVolume | kPictures | kStreams);
  for (const DB_STREAM& row : recordings) readAll(row);
  tarn::soundChunks(kCardPath);
  if (deviceWrites() != 0) abort();
  card.restore();
  return 0;
}
