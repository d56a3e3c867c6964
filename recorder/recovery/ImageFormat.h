#pragma once

#include <cstdint>

// What the recorder adds to the database image, in bytes of its chunk that readers of the image
// leave alone: by the seal an image proves that it is whole and as new as the journal.
namespace tarn {

inline constexpr uint32_t kImageDataOff = 4;  // behind the image's size, see chunk/CTARNDBChunk.h

// The seal lies at the start of the chunk's last 512 bytes, wherever the image ends. Little-endian.
//                                                                      off size
// "TARNSEAL"                                                             0   8
// bytes of the image                                                     8   4
// CRC-32 of the image                                                   12   4
// event journal: rows, digest (recorder/recovery/JournalSurvey.h)                16   8
// stream journal: rows, digest                                          24   8
// zero                                                                  32  28
// CRC-32 of all before it                                               60   4
inline constexpr uint32_t kImageSealSize = 64;
inline constexpr uint32_t kImageSealRoom = 512;  // at the chunk's end

// What a journal holds, of which an image says that it is as new.
struct JournalState {
  uint32_t rows = 0;
  uint32_t digest = 0;
  bool operator==(const JournalState& o) const { return rows == o.rows && digest == o.digest; }
};

struct ImageSeal {
  uint32_t length = 0;
  uint32_t checksum = 0;
  JournalState events;
  JournalState streams;
};

enum class SealState {
  kNone,  // an image of before there were seals
  kGood,
  kDamaged,  // it says that it is a seal, and its checksum does not fit
};

void encodeImageSeal(const ImageSeal& seal, uint8_t bytes[kImageSealSize]);
SealState decodeImageSeal(const uint8_t bytes[kImageSealSize], ImageSeal* seal);

}  // namespace tarn
