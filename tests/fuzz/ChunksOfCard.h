#pragma once

#include <cstdint>
#include <string>

#include "fat/ChunkFiles.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn_fuzz {

// The chunk of a card that holds pictures, and the one that holds sound; UINT32_MAX of none.
struct ChunksOfCard {
  uint32_t pictures = UINT32_MAX;
  uint32_t sound = UINT32_MAX;
};

// Of all bytes of the card.
inline ChunksOfCard chunksOfCard(const std::string& card, const tarn::CardInfo& info) {
  ChunksOfCard found;
  const tarn::CardFamily& streams = info.family(tarn::kFileStream);
  const tarn::CardFamily& pictures = info.family(tarn::kFilePicture);
  const auto* bytes = reinterpret_cast<const uint8_t*>(card.data());
  for (uint32_t chunk = 0; chunk < streams.chunks; ++chunk) {
    tarn::StreamHeader header;
    tarn::PictureTime time;
    const uint64_t entries = pictures.startByte() + uint64_t{chunk} * pictures.chunkSize;
    const uint64_t data = streams.startByte() + uint64_t{chunk} * streams.chunkSize;
    if (!tarn::decodeStreamHeader(bytes + entries, &header) || header.version == 0) continue;
    (tarn::SoundBlock::readStart(bytes + data, &time) ? found.sound : found.pictures) = chunk;
  }
  return found;
}

}  // namespace tarn_fuzz
