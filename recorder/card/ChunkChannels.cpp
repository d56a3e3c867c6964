#include "recorder/card/ChunkChannels.h"

#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/NoThrow.h"

namespace tarn {

int ChunkChannels::read(std::string* error) {
  return orNoMemory(
      "ChunkChannels",
      [&]() -> int {
        channels_.clear();
        CardInfo card;
        if (card.read(deviceName(kRecorderPartition), error) != 0) return -1;
        for (const CHUNK_MANAGE& record : card.management(kFileStreamManage).records) {
          const auto type = static_cast<int8_t>(record.chType);
          channels_.push_back(isGuarded(type) ? guardedChannel(type) : type);
        }
        return 0;
      },
      [&]() -> int { return memoryOut(error); });
}

int ChunkChannels::of(uint32_t chunk) const {
  return chunk < channels_.size() && channels_[chunk] >= 0 ? channels_[chunk] : kUnknown;
}

}  // namespace tarn
