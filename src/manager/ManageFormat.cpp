#include "manager/ManageFormat.h"

#include <cstdio>
#include <cstring>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fat/ChunkFiles.h"

namespace tarn {

void encodeManageRecord(const CHUNK_MANAGE& record, uint8_t* out) {
  memcpy(out + kManageReservedOff, record.reserved, sizeof record.reserved);
  out[kManageChTypeOff] = static_cast<uint8_t>(record.chType);
  out[kManageRecTypeOff] = static_cast<uint8_t>(record.recType);
  putLe32(out + kManageStreamUseOff, record.streamUseOffset);
  putLe32(out + kManageStreamFreeOff, record.streamFreeOffset);
  putLe32(out + kManagePictureUseOff, record.pictureUseOffset);
  putLe32(out + kManagePictureFreeOff, record.pictureFreeOffset);
}

CHUNK_MANAGE decodeManageRecord(const uint8_t* in) {
  CHUNK_MANAGE record;
  memcpy(record.reserved, in + kManageReservedOff, sizeof record.reserved);
  record.chType = static_cast<int8_t>(in[kManageChTypeOff]);
  record.recType = static_cast<int8_t>(in[kManageRecTypeOff]);
  record.streamUseOffset = getLe32(in + kManageStreamUseOff);
  record.streamFreeOffset = getLe32(in + kManageStreamFreeOff);
  record.pictureUseOffset = getLe32(in + kManagePictureUseOff);
  record.pictureFreeOffset = getLe32(in + kManagePictureFreeOff);
  return record;
}

void sealManageData(uint8_t* data, uint32_t chunks) {
  const uint32_t length = chunks * kManageRecordSize;
  putLe16(data + length, crc16(data, length));
}

bool manageDataIsValid(const uint8_t* data, uint32_t chunks) {
  const uint32_t length = chunks * kManageRecordSize;
  return crc16(data, length) == getLe16(data + length);
}

char* manageFileName(const char* kindSuffix, int copy, char* out) {
  char tag[8];
  snprintf(tag, sizeof tag, "MG%.2s", kindSuffix);
  return chunkFileName(kRecorderPartition, tag, copy, out);
}

}  // namespace tarn
