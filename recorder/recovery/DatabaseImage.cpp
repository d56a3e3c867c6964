#include "recorder/recovery/DatabaseImage.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/Crc32.h"
#include "base/Endian.h"
#include "base/Omission.h"
#include "base/UniqueFd.h"
#include "chunk/CTARNDBChunk.h"
#include "db/DatabaseFile.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/Source.h"
#include "recorder/recovery/ImageFormat.h"
#include "recorder/rows/DatabaseSetup.h"

namespace tarn {
namespace {

constexpr long kUnreadable = -2;
constexpr uint32_t kBlockBytes = 64 * 1024;
// Limits for an image's statements: no value of ours has a thousandth of this, and a full check of
// the largest image takes a hundredth of these steps.
constexpr int kLongestValue = 1000000;
constexpr int kStepsAtOnce = 1000000;
constexpr int kMostSteps = 2000;

constexpr char kUnreadableImage[] = "the database image cannot be read";
constexpr char kDamagedImage[] = "the database image is damaged";
constexpr char kOldImage[] = "the database image is older than the journal";
constexpr char kForeignImage[] = "the database image has other tables than the recorder's";
constexpr char kNoImageOfIt[] = "the card has no image of this database";
constexpr char kNoRoomForImage[] = "the database does not fit into its image or cannot be written";

bool unusable(std::string* error, const char* text) {
  *error = text;
  return false;
}

JournalState stateOf(const JournalSurvey& survey) { return {survey.liveKeys, survey.digest}; }

// The checksum and length of a file; false when it cannot be read to its end.
bool fileChecksum(const char* path, uint32_t* length, uint32_t* checksum) {
  const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
  std::vector<uint8_t> block(kBlockBytes);
  *length = *checksum = 0;
  for (;;) {
    const ssize_t got = file.valid() ? read(file.get(), block.data(), block.size()) : -1;
    if (got == 0) return true;
    if (got < 0 || *length > INT32_MAX - static_cast<uint32_t>(got)) return false;
    *checksum = crc32(block.data(), static_cast<size_t>(got), *checksum);
    *length += static_cast<uint32_t>(got);
  }
}

uint32_t sealPlace(const Source& chunk) {
  return chunk.size() < kImageSealRoom ? 0 : chunk.size() - kImageSealRoom;
}

// Runs a statement of one row on the restored file, which no other process knows yet.
class ImageQuery {
 public:
  ImageQuery() {
    failed_ = sqlite3_open_v2(kRestoredImagePath, &db_, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK;
    if (!failed_) defend();
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
  sqlite3* database() const { return db_; }
  std::string text() const {
    const unsigned char* value = sqlite3_column_text(statement_, 0);
    return value == nullptr ? "" : reinterpret_cast<const char*>(value);
  }
  uint32_t number(int column) const {
    return static_cast<uint32_t>(sqlite3_column_int64(statement_, column));
  }

 private:
  // The file comes from a card that others may have written: nothing that it defines is run, and
  // no statement runs for ever.
  void defend() {
    for (const int off : {SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_VIEW,
                          SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION}) {
      sqlite3_db_config(db_, off, 0, nullptr);
    }
    sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, kLongestValue);
    sqlite3_limit(db_, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_progress_handler(
        db_, kStepsAtOnce,
        [](void* left) {
          auto* count = static_cast<int*>(left);
          return --*count < 0 ? 1 : 0;
        },
        &stepsLeft_);
  }

  int stepsLeft_ = kMostSteps;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
  bool failed_ = false;
};

// The image's bytes are those that were saved, and nothing has been journaled since.
bool isSealed(const JournalSurvey& events, const JournalSurvey& streams, std::string* error) {
  if (omitted("image-seal")) return true;
  ChunkSource chunk(kFileDbImage, 0, O_RDONLY);
  uint8_t bytes[kImageSealSize];
  if (chunk.read(sealPlace(chunk), bytes, sizeof bytes) != Delivery::kGood) {
    return unusable(error, kUnreadableImage);
  }
  ImageSeal seal;
  const SealState state = decodeImageSeal(bytes, &seal);
  if (state == SealState::kNone) return true;
  uint32_t length = 0;
  uint32_t checksum = 0;
  if (!fileChecksum(kRestoredImagePath, &length, &checksum))
    return unusable(error, kUnreadableImage);
  if (state == SealState::kDamaged || seal.length != length || seal.checksum != checksum) {
    return unusable(error, kDamagedImage);
  }
  return (seal.events == stateOf(events) && seal.streams == stateOf(streams)) ||
         unusable(error, kOldImage);
}

// The newest row is the journal's newest live record.
bool isNewest(ImageQuery* query, const char* sql, const JournalSurvey& journal) {
  if (!query->run(sql)) return !query->failed() && journal.live == 0;
  return query->number(0) == journal.newestKey && query->number(1) == journal.newestPlace;
}

bool isTrusted(const JournalSurvey& events, const JournalSurvey& streams, std::string* error) {
  if (omitted("image-trust")) return true;
  if (!isSealed(events, streams, error)) return false;
  ImageQuery query;
  if (query.failed() || !DatabaseSetup::hasOurSchema(query.database())) {
    return unusable(error, kForeignImage);
  }
  if (!query.run("PRAGMA quick_check( 1 )") || query.text() != "ok") {
    return unusable(error, kDamagedImage);
  }
  const bool newest =
      isNewest(&query, "SELECT eventID, backOffset FROM EVENT ORDER BY eventID DESC LIMIT 1",
               events) &&
      isNewest(&query, "SELECT streamID, backOffset FROM STREAM ORDER BY streamID DESC LIMIT 1",
               streams);
  if (query.failed()) return unusable(error, kUnreadableImage);
  return newest || unusable(error, kOldImage);
}

bool copyOut(CTARNDBChunk* chunk, std::string* error) {
  unlink(kRestoredImagePath);
  unlink(kRestoredImageJournalPath);
  return chunk->copyOut(kRestoredImagePath) == 0 || unusable(error, kUnreadableImage);
}

// What a read would otherwise find in memory comes from the card again.
void forgetCachedCard() {
  const UniqueFd card(open(deviceName(kRecorderPartition), O_RDONLY | O_CLOEXEC));
  if (card.valid()) posix_fadvise(card.get(), 0, 0, POSIX_FADV_DONTNEED);
}

// What the database and the journals hold now.
bool makeSeal(ImageSeal* seal, std::string* error) {
  JournalSurvey events;
  JournalSurvey streams;
  if (surveyJournal(JournalKind::kEvent, &events) != 0)
    return unusable(error, events.error.c_str());
  if (surveyJournal(JournalKind::kStream, &streams) != 0)
    return unusable(error, streams.error.c_str());
  seal->events = stateOf(events);
  seal->streams = stateOf(streams);
  return fileChecksum(DatabaseSetup::defaultPath(), &seal->length, &seal->checksum) ||
         unusable(error, "the database cannot be read");
}

// Before the image, so that one which is not what it should be never counts.
bool writeSeal(const ImageSeal& seal, std::string* error) {
  if (omitted("image-seal")) return true;
  ChunkSource chunk(kFileDbImage, 0, O_RDWR);
  if (chunk.size() < kImageSealRoom + kImageDataOff ||
      seal.length > chunk.size() - kImageSealRoom - kImageDataOff) {
    return unusable(error, kNoRoomForImage);
  }
  uint8_t bytes[kImageSealSize];
  encodeImageSeal(seal, bytes);
  return (chunk.write(sealPlace(chunk), bytes, sizeof bytes) && chunk.flush()) ||
         unusable(error, kNoRoomForImage);
}

// The image's bytes on the card are those of the seal.
bool holdsBytesOf(const ImageSeal& seal) {
  forgetCachedCard();
  ChunkSource chunk(kFileDbImage, 0, O_RDONLY);
  std::vector<uint8_t> block(kBlockBytes);
  uint32_t checksum = 0;
  for (uint32_t done = 0; done < seal.length;) {
    const uint32_t length = std::min(kBlockBytes, seal.length - done);
    if (chunk.read(kImageDataOff + done, block.data(), length) != Delivery::kGood) return false;
    checksum = crc32(block.data(), length, checksum);
    done += length;
  }
  return checksum == seal.checksum;
}

bool isSaved(const ImageSeal& seal) {
  if (!holdsBytesOf(seal)) return false;
  ChunkSource chunk(kFileDbImage, 0, O_RDONLY);
  uint8_t size[kImageDataOff];
  return chunk.read(0, size, sizeof size) == Delivery::kGood && getLe32(size) == seal.length;
}

bool isSealOnCard(const ImageSeal& seal) {
  ChunkSource chunk(kFileDbImage, 0, O_RDONLY);
  if (chunk.size() < kImageSealRoom + kImageDataOff) return false;
  uint8_t expected[kImageSealSize];
  uint8_t found[kImageSealSize];
  encodeImageSeal(seal, expected);
  return chunk.read(sealPlace(chunk), found, sizeof found) == Delivery::kGood &&
         memcmp(found, expected, sizeof found) == 0;
}

// After a run that changed nothing, the image that it started from still lies there, marked empty:
// its size is all there is to write, and where no data was written none needs time to settle.
bool announceAgain(const ImageSeal& seal) {
  if (!isSealOnCard(seal) || !holdsBytesOf(seal)) return false;
  ChunkSource chunk(kFileDbImage, 0, O_RDWR);
  uint8_t size[kImageDataOff];
  putLe32(size, seal.length);
  return chunk.write(0, size, sizeof size) && chunk.flush() && isSaved(seal);
}

bool save(CTARNDBChunk* chunk, ImageSave how, std::string* error) {
  ImageSeal seal;
  if (!makeSeal(&seal, error)) return false;
  if (announceAgain(seal)) return true;
  if (how == ImageSave::kAgain) return unusable(error, kNoImageOfIt);
  if (!writeSeal(seal, error)) return false;
  if (chunk->copyIn(DatabaseSetup::defaultPath()) != 0) return unusable(error, kNoRoomForImage);
  return isSaved(seal) || unusable(error, "the saved database image is not what was saved");
}

// An image that was taken is marked empty at once.
bool markTaken(CTARNDBChunk* chunk) {
  if (omitted("image-emptied")) return true;
  return chunk->clearDBChunk(0) == 0;
}

// And an old one before a new one is saved, or when that failed.
bool markEmpty(CTARNDBChunk* chunk) {
  if (omitted("image-cleared-first")) return true;
  return chunk->clearDBChunk(0) == 0;
}

}  // namespace

ImageRestore restoreDatabaseImage(const JournalSurvey& events, const JournalSurvey& streams,
                                  std::string* error) {
  CTARNDBChunk chunk;
  const long size = chunk.getDBSize(kRestoredImagePath);
  if (size == 0 || size == -1) return ImageRestore::kNone;
  // Whether an image is there is not known. Nothing can have gone wrong yet, but an image that
  // shows up again later would.
  if (size == kUnreadable) *error = "whether the card has a database image cannot be read";
  const bool usable =
      size != kUnreadable && copyOut(&chunk, error) && isTrusted(events, streams, error);
  if (!markTaken(&chunk)) {
    unlink(kRestoredImagePath);
    // What cannot be read at all is no danger, and no reason never to start again.
    if (size == kUnreadable) return ImageRestore::kUnusable;
    *error = "the card's database image could not be marked empty";
    return ImageRestore::kFailed;
  }
  if (usable && DatabaseSetup::replace(kRestoredImagePath, DatabaseSetup::defaultPath(), error)) {
    return ImageRestore::kRestored;
  }
  unlink(kRestoredImagePath);
  return ImageRestore::kUnusable;
}

bool dropDatabaseImage() {
  if (omitted("image-emptied")) return true;
  CTARNDBChunk chunk;
  const long size = chunk.getDBSize(kRestoredImagePath);
  if (size == 0 || size == -1) return true;
  // One that a passing read error hides would show up again. Where this fails as well there may be
  // no card, and what cannot be read at all is no danger.
  return chunk.clearDBChunk(0) == 0 || size == kUnreadable;
}

bool saveDatabaseImage(ImageSave how, std::string* error) {
  CTARNDBChunk chunk;
  if (!markEmpty(&chunk)) return unusable(error, "the card has no place for an image");
  struct stat journal;
  // A writer that died in a transaction left the file half changed; SQLite would mend it first.
  if (stat(kDatabaseJournalPath, &journal) == 0 && journal.st_size != 0) {
    return unusable(error, "the database has an unfinished transaction");
  }
  if (!DatabaseSetup::check(DatabaseSetup::defaultPath(), error)) return false;
  if (save(&chunk, how, error)) return true;
  if (!markEmpty(&chunk)) {
    *error += "; nor can the image be marked empty, run recovery before anything else";
  }
  return false;
}

}  // namespace tarn
