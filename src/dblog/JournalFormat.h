#pragma once

#include <cstdint>

#include "base/Export.h"
#include "chunk/MirrorTrailer.h"
#include "db/DbRecordFormat.h"
#include "db/DbRecords.h"

// Records of the database journal, and the chunks that hold them. Records lie back to back from
// offset 0 of a chunk; a chunk's size is a multiple of the greater record size, so that none
// straddles its end. A record is valid when its checksum fits; it counts as a row when it is also
// live and repeats its own byte position in backOffset.
namespace tarn {

// Little-endian but for the checksum. Stored rows: see db/DbRecordFormat.h.
inline constexpr uint32_t kJournalMarkerOff = 0;  // 4 bytes, below
inline constexpr uint32_t kJournalBodyOff = 4;    // the stored row
// Behind the row: see chunk/MirrorTrailer.h.

// Event record                                                         off size
// marker                                                                 0   4
// stored EVENT row                                                       4  24
inline constexpr uint32_t kEventRecordCrcLength = kJournalBodyOff + kStoredEventSize;
inline constexpr uint32_t kEventRecordSize = kEventRecordCrcLength + kMirrorTrailerSize;
static_assert(kEventRecordCrcLength == 28 && kEventRecordSize == 32);

// Stream record                                                        off size
// marker                                                                 0   4
// stored STREAM row                                                      4  48
inline constexpr uint32_t kStreamRecordReservedOff = kJournalBodyOff + kStoredStreamSize;  // 52 8
inline constexpr uint32_t kStreamRecordReservedSize = 8;                                   // zero
inline constexpr uint32_t kStreamRecordCrcLength =
    kStreamRecordReservedOff + kStreamRecordReservedSize;
inline constexpr uint32_t kStreamRecordSize = kStreamRecordCrcLength + kMirrorTrailerSize;
static_assert(kStreamRecordCrcLength == 60 && kStreamRecordSize == 64);

inline constexpr uint32_t kMarkerLiveStream = 0xFFFFFFEC;     // -20
inline constexpr uint32_t kMarkerLiveEvent = 0xFFFFFFED;      // -19
inline constexpr uint32_t kMarkerDeletedStream = 0xFFFFFFEE;  // -18
inline constexpr uint32_t kMarkerDeletedEvent = 0xFFFFFFEF;   // -17
inline constexpr uint32_t kMarkerErased = 0xFFFFFFFF;         // erased medium: end of the journal

// Journal chunks.
inline constexpr short kEventJournalChunk = 0;
inline constexpr short kStreamJournalChunk = 2;
inline constexpr short kJournalMirrorStep = 1;  // from a chunk to its mirror

enum class JournalKind : uint8_t { kEvent, kStream };

// What differs between the two journals.
struct JournalTraits {
  short chunk;          // of the original
  uint32_t recordSize;  // bytes
  uint32_t crcLength;   // bytes under the checksum
  uint32_t liveMarker;
  uint32_t deletedMarker;
  uint32_t backOffsetOff;  // of backOffset in the record
};
TARN_API const JournalTraits& journalTraits(JournalKind kind);

// A record's head as both kinds have it.
TARN_API uint32_t journalMarker(const void* record);
TARN_API uint32_t journalKey(const void* record);
TARN_API uint32_t journalBackOffset(const JournalTraits& traits, const void* record);
TARN_API void setJournalMarker(void* record, uint32_t marker);

// True when a record can begin at `offset` of a chunk of that size; and the place of the record
// behind one that begins there, 0 at the chunk's end.
TARN_API bool isJournalPlace(const JournalTraits& traits, uint32_t offset, uint32_t chunkSize);
TARN_API uint32_t nextJournalPlace(const JournalTraits& traits, uint32_t offset,
                                   uint32_t chunkSize);

// Write the trailer that fits the record, and test it. Only the two bytes of the checksum count.
TARN_API void sealJournalRecord(void* record, uint32_t crcLength);
TARN_API bool journalRecordValid(const void* record, uint32_t crcLength);
// A valid record, live or deleted, that lies where it says it does.
TARN_API bool journalRecordInPlace(const JournalTraits& traits, const void* record,
                                   uint32_t position);

// No journal is read further than this, whatever a card says about the size of its chunks.
inline constexpr uint32_t kMaxJournalBytes = 12 * 1024 * 1024;

// Which of the two copies of a record counts.
enum class JournalCopy : uint8_t {
  kOriginal,
  kMirror,
  kNeither,  // the device gave both, and neither is a record
  kErased,   // the same, and both are erased: the journal's end
  kRefused,  // the device did not give enough of them to know
};

// Judges the two copies of the record at `position`; null for one that the device did not give. A
// copy that says what it is and lies where it says goes before one that only has a right checksum:
// a sector that the card lost as zeros has the checksum of zeros. Of two that are alike in this the
// original is the newer one, because it is written first. Beside a copy that was not given the
// other one counts only when it lies in its place.
TARN_API JournalCopy judgeJournalCopies(const JournalTraits& traits, uint32_t position,
                                        const uint8_t* original, const uint8_t* mirror);
// The same; *inPlace tells whether the copy that counts lies where it says
// (journalRecordInPlace()), so that who needs to know need not work its checksum out once more.
TARN_API JournalCopy judgeJournalCopies(const JournalTraits& traits, uint32_t position,
                                        const uint8_t* original, const uint8_t* mirror,
                                        bool* inPlace);

// Live, sealed records, and the rows in records.
TARN_API void encodeEventRecord(const DB_EVENT& row, void* record);
TARN_API void encodeStreamRecord(const DB_STREAM& row, void* record);
TARN_API void decodeEventRecord(const void* record, DB_EVENT* row);
TARN_API void decodeStreamRecord(const void* record, DB_STREAM* row);

}  // namespace tarn
