#include "db/DbRecordFormat.h"

#include "base/Endian.h"

namespace tarn {

void encodeEvent(const DB_EVENT& record, void* out) {
  auto* bytes = static_cast<uint8_t*>(out);
  putLe32(bytes + kEventIdOff, record.eventID);
  putLe16(bytes + kEventExtTrgOff, record.extTrg);
  putLe16(bytes + kEventPreSecOff, record.preSec);
  putLe32(bytes + kEventStartDateOff, record.startDate);
  putLe32(bytes + kEventEndDateOff, record.endDate);
  putLe16(bytes + kEventStartMSecOff, record.startMSec);
  putLe16(bytes + kEventEndMSecOff, record.endMSec);
  putLe32(bytes + kEventBackOffsetOff, record.backOffset);
}

void decodeEvent(const void* in, DB_EVENT* record) {
  const auto* bytes = static_cast<const uint8_t*>(in);
  record->eventID = getLe32(bytes + kEventIdOff);
  record->extTrg = getLe16(bytes + kEventExtTrgOff);
  record->preSec = getLe16(bytes + kEventPreSecOff);
  record->startDate = getLe32(bytes + kEventStartDateOff);
  record->endDate = getLe32(bytes + kEventEndDateOff);
  record->startMSec = getLe16(bytes + kEventStartMSecOff);
  record->endMSec = getLe16(bytes + kEventEndMSecOff);
  record->backOffset = getLe32(bytes + kEventBackOffsetOff);
}

void encodeStream(const DB_STREAM& record, void* out) {
  auto* bytes = static_cast<uint8_t*>(out);
  putLe32(bytes + kStreamIdOff, record.streamID);
  putLe16(bytes + kStreamInTrgOff, record.inTrg);
  putLe16(bytes + kStreamFrameSetOff, record.frameSet);
  putLe32(bytes + kStreamBitrateSetOff, record.bitrateSet);
  putLe32(bytes + kStreamRecSizeOff, record.recSize);
  putLe32(bytes + kStreamChunkIdOff, record.chunkID);
  putLe32(bytes + kStreamChunkOffsetOff, record.chunkOffset);
  putLe32(bytes + kStreamChunkSizeOff, record.chunkSize);
  putLe32(bytes + kStreamStatusOff, record.status);
  putLe32(bytes + kStreamStartDateOff, record.startDate);
  putLe32(bytes + kStreamEndDateOff, record.endDate);
  putLe16(bytes + kStreamStartMSecOff, record.startMSec);
  putLe16(bytes + kStreamEndMSecOff, record.endMSec);
  putLe32(bytes + kStreamBackOffsetOff, record.backOffset);
}

void decodeStream(const void* in, DB_STREAM* record) {
  const auto* bytes = static_cast<const uint8_t*>(in);
  record->streamID = getLe32(bytes + kStreamIdOff);
  record->inTrg = getLe16(bytes + kStreamInTrgOff);
  record->frameSet = getLe16(bytes + kStreamFrameSetOff);
  record->bitrateSet = getLe32(bytes + kStreamBitrateSetOff);
  record->recSize = getLe32(bytes + kStreamRecSizeOff);
  record->chunkID = getLe32(bytes + kStreamChunkIdOff);
  record->chunkOffset = getLe32(bytes + kStreamChunkOffsetOff);
  record->chunkSize = getLe32(bytes + kStreamChunkSizeOff);
  record->status = getLe32(bytes + kStreamStatusOff);
  record->startDate = getLe32(bytes + kStreamStartDateOff);
  record->endDate = getLe32(bytes + kStreamEndDateOff);
  record->startMSec = getLe16(bytes + kStreamStartMSecOff);
  record->endMSec = getLe16(bytes + kStreamEndMSecOff);
  record->backOffset = getLe32(bytes + kStreamBackOffsetOff);
}

}  // namespace tarn
