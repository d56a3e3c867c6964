#include "recorder/recording/SoundChunks.h"

#include "manager/ManageFormat.h"
#include "recorder/card/CardReader.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn {

std::set<uint32_t> soundChunks(const std::string& path) {
  std::set<uint32_t> found;
  CardReader card;
  std::string error;
  if (card.open(path, &error) != 0) return found;
  const auto& records = card.info().management(kFileStreamManage).records;
  for (uint32_t chunk = 0; chunk < records.size(); ++chunk) {
    const CHUNK_MANAGE& record = records[chunk];
    uint8_t head[SoundBlock::kHeadSize];
    PictureTime start;
    const bool used =
        record.chType != kChannelUnused && record.streamUseOffset != record.streamFreeOffset;
    if (used && card.readChunk(kFileStream, chunk, record.streamUseOffset, head, sizeof head) &&
        SoundBlock::readStart(head, &start)) {
      found.insert(chunk);
    }
  }
  return found;
}

}  // namespace tarn
