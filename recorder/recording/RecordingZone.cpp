#include "recorder/recording/RecordingZone.h"

#include <fcntl.h>

#include "fat/ChunkFiles.h"
#include "recorder/card/Source.h"
#include "recorder/recording/PictureStamp.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

std::optional<int32_t> zoneOfRecording(const DB_STREAM& row) {
  constexpr uint32_t kMostAsked = 4;  // a damaged picture is one, and hardly ever all of these
  if (isSound(row)) return std::nullopt;
  RecordingIndex index(row);
  ChunkSource stream(kFileStream, row.chunkID, O_RDONLY);
  if (!stream.isOpen()) return std::nullopt;
  PictureEntry entry;
  int32_t zone = 0;
  // The entry as it was written: where the recording was re-dated, the picture was not.
  for (uint32_t i = 0; i < kMostAsked; ++i) {
    if (index.entry(i, &entry) == Delivery::kGood && entry.dataOffset < stream.size() &&
        zoneOfPicture(&stream, entry, &zone) == Delivery::kGood)
      return zone;
  }
  return std::nullopt;
}

}  // namespace tarn
