#include "recorder/DatabaseImage.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/Omission.h"
#include "chunk/CTARNDBChunk.h"
#include "dblog/JournalFormat.h"
#include "fat/CFATAccess.h"
#include "recorder/DatabaseSetup.h"
#include "recorder/NativeRows.h"

namespace tarn {
namespace {

constexpr char kRestored[] = "/tmp/DB.dat.image";
constexpr char kHotJournal[] = "/tmp/DB.dat-journal";
constexpr long kUnreadable = -2;

bool unusable(std::string* error, const char* text) {
  *error = text;
  return false;
}

// What the journal says at a row's place.
bool journalHolds(JournalKind kind, uint32_t key, uint32_t position) {
  const JournalTraits& traits = journalTraits(kind);
  for (const int chunk : {int{traits.chunk}, traits.chunk + kJournalMirrorStep}) {
    CFATAccess fat;
    char name[kChunkFileNameRoom];
    const int handle =
        fat.open(chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name), O_RDONLY);
    uint8_t record[kStreamRecordSize];
    if (handle == -1 || fat.lseek(handle, static_cast<long>(position), SEEK_SET) < 0 ||
        fat.read(handle, record, traits.recordSize) != static_cast<long>(traits.recordSize)) {
      continue;
    }
    if (journalRecordInPlace(traits, record, position)) {
      return journalMarker(record) == traits.liveMarker && journalKey(record) == key;
    }
  }
  return false;
}

// Runs a statement of one row on the restored file, which no other process knows yet.
class ImageQuery {
 public:
  ImageQuery() {
    if (sqlite3_open_v2(kRestored, &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK)
      failed_ = true;
  }
  ~ImageQuery() {
    sqlite3_finalize(statement_);
    sqlite3_close(db_);
  }
  ImageQuery(const ImageQuery&) = delete;
  ImageQuery& operator=(const ImageQuery&) = delete;

  // True with a row.
  bool run(const char* sql) {
    sqlite3_finalize(statement_);
    statement_ = nullptr;
    if (failed_ || sqlite3_prepare_v2(db_, sql, -1, &statement_, nullptr) != SQLITE_OK) {
      failed_ = true;
      return false;
    }
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) failed_ = true;
    return result == SQLITE_ROW;
  }
  bool failed() const { return failed_; }
  std::string text() const {
    const unsigned char* value = sqlite3_column_text(statement_, 0);
    return value == nullptr ? "" : reinterpret_cast<const char*>(value);
  }
  uint32_t number(int column) const {
    return static_cast<uint32_t>(sqlite3_column_int64(statement_, column));
  }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
  bool failed_ = false;
};

// An image is as new as the journal when the journal knows the newest row of each table.
bool isTrusted(std::string* error) {
  if (!DatabaseSetup::check(kRestored, error)) return false;
  ImageQuery query;
  if (!query.run("PRAGMA quick_check( 1 )") || query.text() != "ok") {
    return unusable(error, "the database image is damaged");
  }
  const bool event =
      query.run("SELECT eventID, backOffset FROM EVENT ORDER BY eventID DESC LIMIT 1");
  if (event && !journalHolds(JournalKind::kEvent, query.number(0), query.number(1))) {
    return unusable(error, "the database image is not as new as the journal");
  }
  const bool stream =
      query.run("SELECT streamID, backOffset FROM STREAM ORDER BY streamID DESC LIMIT 1");
  if (stream && !journalHolds(JournalKind::kStream, query.number(0), query.number(1))) {
    return unusable(error, "the database image is not as new as the journal");
  }
  return !query.failed() || unusable(error, "the database image cannot be read");
}

bool copyOut(CTARNDBChunk* chunk, std::string* error) {
  unlink(kRestored);
  return chunk->copyOut(kRestored) == 0 || unusable(error, "the database image cannot be read");
}

}  // namespace

ImageRestore restoreDatabaseImage(std::string* error) {
  CTARNDBChunk chunk;
  const long size = chunk.getDBSize(kRestored);
  if (size == 0 || size == -1) return ImageRestore::kNone;
  // Whether an image is there is not known. Nothing can have gone wrong yet, but an image that
  // shows up again later would.
  if (size == kUnreadable) *error = "the card does not tell whether it has a database image";
  const bool usable = size != kUnreadable && copyOut(&chunk, error) &&
                      (omitted(Omit::kImageTrust) || isTrusted(error));
  if (!omitted(Omit::kImageEmptied) && chunk.clearDBChunk(0) != 0) {
    unlink(kRestored);
    // What cannot be read at all is no danger, and no reason never to start again.
    if (size == kUnreadable) return ImageRestore::kUnusable;
    *error = "the card's database image could not be marked empty";
    return ImageRestore::kFailed;
  }
  if (usable && DatabaseSetup::replace(kRestored, DatabaseSetup::defaultPath(), error)) {
    return ImageRestore::kRestored;
  }
  unlink(kRestored);
  return ImageRestore::kUnusable;
}

bool dropDatabaseImage() {
  CTARNDBChunk chunk;
  if (omitted(Omit::kImageEmptied)) return true;
  const long size = chunk.getDBSize(kRestored);
  if (size == 0 || size == -1) return true;
  // One that a passing read error hides would show up again. Where this fails as well there may be
  // no card, and what cannot be read at all is no danger.
  return chunk.clearDBChunk(0) == 0 || size == kUnreadable;
}

bool saveDatabaseImage(std::string* error) {
  CTARNDBChunk chunk;
  if (!omitted(Omit::kImageClearedFirst) && chunk.clearDBChunk(0) != 0)
    return unusable(error, "the card has no place for an image");
  struct stat journal;
  // A writer that died in a transaction left the file half changed; SQLite would mend it first.
  if (stat(kHotJournal, &journal) == 0 && journal.st_size != 0) {
    return unusable(error, "the database has an unfinished transaction");
  }
  if (!DatabaseSetup::check(DatabaseSetup::defaultPath(), error)) return false;
  return chunk.copyIn(DatabaseSetup::defaultPath()) == 0 ||
         unusable(error, "the database does not fit into its image or cannot be written");
}

}  // namespace tarn
