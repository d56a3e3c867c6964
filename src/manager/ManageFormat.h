#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Export.h"
#include "manager/ChunkRecords.h"

// A management file: N records of 24 bytes from the file's first byte, then a CRC-16 over them, low
// byte first. Whatever stands behind the CRC is not part of it. Main and backup copy are the same.
namespace tarn {

//                                                             off size
inline constexpr uint32_t kManageReservedOff = 0;      //   0    6  carried unchanged
inline constexpr uint32_t kManageChTypeOff = 6;        //   6    1  signed
inline constexpr uint32_t kManageRecTypeOff = 7;       //   7    1  signed
inline constexpr uint32_t kManageStreamUseOff = 8;     //   8    4
inline constexpr uint32_t kManageStreamFreeOff = 12;   //  12    4
inline constexpr uint32_t kManagePictureUseOff = 16;   //  16    4
inline constexpr uint32_t kManagePictureFreeOff = 20;  //  20    4
inline constexpr uint32_t kManageRecordSize = 24;
inline constexpr uint32_t kManageCrcSize = 2;  // at 24 * N
static_assert(kManageRecordSize == sizeof(CHUNK_MANAGE));

// chType of a stream chunk that no channel owns.
inline constexpr int8_t kChannelUnused = -1;

// A guarded chunk: it counts as used, but no channel has it, so nobody records into it, not even
// who knows nothing of the mark. -2 stands for channel 0, -3 for 1 and so on; 127 shares the mark
// of 126, because 127 channels are all that a byte has left.
inline constexpr int8_t kFirstGuardMark = -2;
inline constexpr int8_t kLastGuardedChannel = 126;

inline constexpr bool isGuarded(int8_t chType) { return chType <= kFirstGuardMark; }
// Of a chunk that no channel owns: the mark of channel 0.
inline constexpr int8_t guardMark(int8_t channel) {
  const int kept = channel < 0 ? 0 : channel > kLastGuardedChannel ? kLastGuardedChannel : channel;
  return static_cast<int8_t>(kFirstGuardMark - kept);
}
// The channel of a mark.
inline constexpr int8_t guardedChannel(int8_t mark) {
  return static_cast<int8_t>(kFirstGuardMark - mark);
}
// Number in the file name of the two copies.
inline constexpr int kManageMainCopy = 0;
inline constexpr int kManageBackupCopy = 1;

// Bytes of a management file for `chunks` chunks, CRC included.
constexpr uint32_t manageDataSize(uint32_t chunks) {
  return chunks * kManageRecordSize + kManageCrcSize;
}

// One record to and from kManageRecordSize bytes.
TARN_API void encodeManageRecord(const CHUNK_MANAGE& record, uint8_t* out);
TARN_API CHUNK_MANAGE decodeManageRecord(const uint8_t* in);

// Writes the CRC of the `chunks` records in `data` behind them; data has manageDataSize(chunks)
// bytes.
TARN_API void sealManageData(uint8_t* data, uint32_t chunks);
// True when the CRC behind the `chunks` records in `data` is theirs.
TARN_API bool manageDataIsValid(const uint8_t* data, uint32_t chunks);

// Writes the name "device:MGxx000n" of a copy (kManageMainCopy or kManageBackupCopy) of the kind
// suffix's management file on the recorder's card into out[kChunkFileNameRoom]; returns out.
TARN_API char* manageFileName(const char* kindSuffix, int copy, char* out);

}  // namespace tarn
