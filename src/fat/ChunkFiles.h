#pragma once

#include <cstdint>

#include "base/Export.h"

// Names of devices and chunk files: the one place that spells them.
namespace tarn {

// Index of a chunk file family in the card's info file and in every table of families.
enum FileType : int8_t {
  kFileInfo = 0,           // TAIF
  kFileJournalManage = 1,  // MGDL
  kFileJournal = 2,        // CKDL
  kFileSyslogManage = 3,   // MGSL
  kFileSyslog = 4,         // CKSL
  kFileDbImage = 5,        // DBST
  kFileStreamManage = 6,   // MGST
  kFileStream = 7,         // CKST
  kFilePicture = 8,        // CKPC
};
inline constexpr int kFileTypeCount = 9;

// The recorder's own partition number: its code is 51, the character '3'.
inline constexpr signed char kRecorderPartition = 51;
// Room for the longest device name and its terminating zero.
inline constexpr int kDeviceNameRoom = 16;
// Room for device, colon, tag, up to five digits and the terminating zero.
inline constexpr int kChunkFileNameRoom = 128;

// Four-character tag of a family ("CKST"); "" for an index outside the table.
TARN_API const char* fileTag(int fileType);
// Two-letter kind suffix of a family ("ST"); "" for an index outside the table.
TARN_API const char* kindSuffix(int fileType);
// Family of a name that begins with a tag, or -1.
TARN_API int fileTypeOfName(const char* name);
// Block device of a partition number; "/tmp/dev/mmc" for one that the table does not hold.
TARN_API const char* deviceName(signed char partition);
// Writes "device:TAGnnnn" (at least four digits) for a chunk into out[kChunkFileNameRoom] and
// returns out. chunk is a signed 16-bit number, as chunk numbers are everywhere.
TARN_API char* chunkFileName(signed char partition, const char* tag, int chunk, char* out);

}  // namespace tarn
