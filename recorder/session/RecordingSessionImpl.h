#pragma once

#include <cstddef>
#include <cstdint>

#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/recording/PictureEntry.h"
#include "recorder/rows/DatabaseConnection.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/GopRoom.h"
#include "recorder/session/RecordingSession.h"
#include "recorder/session/RecordingSpace.h"
#include "recorder/session/RowWriter.h"
#include "recorder/session/SessionEvents.h"
#include "recorder/session/SessionOpening.h"

namespace tarn {

// What a session does, in one thread; may throw for lack of memory, which RecordingSession sees to.
class RecordingSession::Impl {
 public:
  ~Impl();

  int open(const RecordingOptions& options, bool sound);
  int write(const void* annexB, size_t size, const PictureEntry& entry);
  void markDiscontinuity() { gap_ = true; }
  int flush();
  int tick();
  int clockStepped(int64_t deltaUs);
  int clockBecameKnown(int64_t deltaUs);
  uint32_t beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec);
  int endEvent(uint32_t eventID, PictureTime time);
  int close();

  void failForMemory();

  bool isOpen() const { return open_; }
  uint32_t streamID() const { return writer_.running() ? writer_.row().streamID : 0; }
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }
  const RecordingStatistics& statistics() const { return statistics_; }

 private:
  bool fail(RecordingError error, const char* text);
  template <typename Part>
  bool failAs(const Part& part) {
    return fail(part.error(), part.errorText());
  }
  bool checkOptions();
  bool checkCard();
  bool takeLocks();
  bool begin(const OpeningFailure& failure);
  bool closeLeftOvers();
  bool ownedByChannel(const DB_STREAM& row);

  RecordingSpace::Need need(size_t picture);
  bool segmentOver(const PictureEntry& entry) const;
  bool roomIsLow();
  bool prepareRow(size_t size, PictureEntry* entry);
  bool changeRow(size_t size, const PictureEntry& entry, bool newChunk);
  bool takeChunk(size_t size, uint32_t now);
  bool beginRow(const PictureEntry& entry);
  bool appendTimed(const uint8_t* annexB, size_t size, const PictureEntry& entry);
  void count(size_t size, const PictureEntry& entry);
  bool jumps(PictureTime decode) const;
  void noteClock(PictureTime decode);
  void endOldTimes();
  bool flushBefore(PictureTime decode);
  int redatedFamily() const;
  bool enterClockEra();
  bool beginClockEra(int64_t knownSeconds);
  bool endRowOfOldClock();

  RecordingOptions options_;
  bool sound_ = false;  // blocks of sound instead of pictures
  bool open_ = false;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
  GeometryReport geometry_;  // of the last open(), whose text text_ may be
  RecordingStatistics statistics_;

  InserterLocks locks_;
  CTARNStreamManager manager_{kRecorderPartition};
  DatabaseConnection connection_;
  CApiDb& db_ = connection_.db();
  DatabaseWatch watch_;
  RowQueries queries_{&db_, &watch_};
  RecordingSpace space_{&manager_, &db_, &watch_, &statistics_};
  RowWriter writer_{&manager_, &db_, &watch_, &space_, &statistics_};
  SessionEvents events_{&db_, &watch_, &writer_};

  bool started_ = false;       // a row was begun in this session
  bool gap_ = true;            // what comes next begins a session or follows a gap
  bool stepped_ = false;       // what comes next has the times of a clock that was set
  int64_t unsafeSinceMs_ = 0;  // monotonic; when the oldest picture that is not safe was written
  PictureTime rowStart_;
  PictureTime lastDecode_;
  PictureTime latest_;  // greatest presentation time
  GopRoom gops_;
};

}  // namespace tarn
