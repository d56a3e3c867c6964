#include "dblog/JournalFormat.h"

#include <cstring>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "base/Omission.h"
#include "base/Wrap.h"

namespace tarn {
namespace {

constexpr JournalTraits kEventTraits = {
    kEventJournalChunk, kEventRecordSize,    kEventRecordCrcLength,
    kMarkerLiveEvent,   kMarkerDeletedEvent, kJournalBodyOff + kEventBackOffsetOff};
constexpr JournalTraits kStreamTraits = {
    kStreamJournalChunk, kStreamRecordSize,    kStreamRecordCrcLength,
    kMarkerLiveStream,   kMarkerDeletedStream, kJournalBodyOff + kStreamBackOffsetOff};

const uint8_t* at(const void* record, uint32_t offset) {
  return static_cast<const uint8_t*>(record) + offset;
}
uint8_t* at(void* record, uint32_t offset) { return static_cast<uint8_t*>(record) + offset; }

}  // namespace

const JournalTraits& journalTraits(JournalKind kind) {
  return kind == JournalKind::kEvent ? kEventTraits : kStreamTraits;
}

uint32_t journalMarker(const void* record) { return getLe32(at(record, kJournalMarkerOff)); }

// The key is the first field of either row.
uint32_t journalKey(const void* record) {
  static_assert(kEventIdOff == kStreamIdOff);
  return getLe32(at(record, kJournalBodyOff + kEventIdOff));
}

uint32_t journalBackOffset(const JournalTraits& traits, const void* record) {
  return getLe32(at(record, traits.backOffsetOff));
}

void setJournalMarker(void* record, uint32_t marker) {
  putLe32(at(record, kJournalMarkerOff), marker);
}

bool isJournalPlace(const JournalTraits& traits, uint32_t offset, uint32_t chunkSize) {
  return offset % traits.recordSize == 0 && chunkSize >= traits.recordSize &&
         offset <= chunkSize - traits.recordSize;
}

uint32_t nextJournalPlace(const JournalTraits& traits, uint32_t offset, uint32_t chunkSize) {
  return ringAdvance(offset, traits.recordSize, chunkSize);
}

void sealJournalRecord(void* record, uint32_t crcLength) { writeMirrorTrailer(record, crcLength); }

bool journalRecordValid(const void* record, uint32_t crcLength) {
  return mirrorTrailerFits(record, crcLength);
}

bool journalRecordInPlace(const JournalTraits& traits, const void* record, uint32_t position) {
  if (omitted("copy-marker")) return journalRecordValid(record, traits.crcLength);
  const uint32_t marker = journalMarker(record);
  return (marker == traits.liveMarker || marker == traits.deletedMarker) &&
         journalBackOffset(traits, record) == position &&
         journalRecordValid(record, traits.crcLength);
}

namespace {

bool isErased(const uint8_t* record) { return journalMarker(record) == kMarkerErased; }

bool isErasedOrLost(const uint8_t* record) {
  return isErased(record) || journalMarker(record) == 0;
}

JournalCopy whicheverIsThere(const uint8_t* original, const uint8_t* mirror) {
  if (original != nullptr) return JournalCopy::kOriginal;
  return mirror != nullptr ? JournalCopy::kMirror : JournalCopy::kRefused;
}

// What counts where a copy was not given, and the other one, if any, does not lie in its place.
JournalCopy beside(const uint8_t* original, const uint8_t* mirror) {
  if (omitted("copy-refused")) return whicheverIsThere(original, mirror);
  return JournalCopy::kRefused;
}

}  // namespace

JournalCopy judgeJournalCopies(const JournalTraits& traits, uint32_t position,
                               const uint8_t* original, const uint8_t* mirror) {
  bool inPlace = false;
  return judgeJournalCopies(traits, position, original, mirror, &inPlace);
}

JournalCopy judgeJournalCopies(const JournalTraits& traits, uint32_t position,
                               const uint8_t* original, const uint8_t* mirror, bool* inPlace) {
  const auto liesHere = [&](const uint8_t* record) {
    return record != nullptr && journalRecordInPlace(traits, record, position);
  };
  *inPlace = true;
  if (liesHere(original)) return JournalCopy::kOriginal;
  if (liesHere(mirror)) return JournalCopy::kMirror;
  *inPlace = false;
  if (original == nullptr || mirror == nullptr) return beside(original, mirror);
  // Zeros beside an erased copy are what a card made of the other one, and no record.
  const bool erased = isErased(original) || isErased(mirror);
  if (erased && isErasedOrLost(original) && isErasedOrLost(mirror)) return JournalCopy::kErased;
  if (journalRecordValid(original, traits.crcLength)) return JournalCopy::kOriginal;
  if (journalRecordValid(mirror, traits.crcLength)) return JournalCopy::kMirror;
  return JournalCopy::kNeither;
}

void encodeEventRecord(const DB_EVENT& row, void* record) {
  setJournalMarker(record, kMarkerLiveEvent);
  encodeEvent(row, at(record, kJournalBodyOff));
  sealJournalRecord(record, kEventRecordCrcLength);
}

void encodeStreamRecord(const DB_STREAM& row, void* record) {
  setJournalMarker(record, kMarkerLiveStream);
  encodeStream(row, at(record, kJournalBodyOff));
  memset(at(record, kStreamRecordReservedOff), 0, kStreamRecordReservedSize);
  sealJournalRecord(record, kStreamRecordCrcLength);
}

void decodeEventRecord(const void* record, DB_EVENT* row) {
  decodeEvent(at(record, kJournalBodyOff), row);
}

void decodeStreamRecord(const void* record, DB_STREAM* row) {
  decodeStream(at(record, kJournalBodyOff), row);
}

}  // namespace tarn
