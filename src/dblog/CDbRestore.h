#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {
class JournalBytes;
enum class JournalKind : uint8_t;
}  // namespace tarn
class CTARNEndlessManagerNative;
class CTARNStreamChunk;
class CTARNStreamManagerNative;
struct CHUNK_MANAGE;

// Rebuilds the database from its journal when the recorder starts, before the management server
// runs: everything here opens chunks and management files itself. Used by one thread, while no
// other process uses the card. Chunk numbers are numbers of journal chunks: 0 is the event
// journal, 2 the stream journal, and the chunk behind each is its mirror.
//
// Results: 0, or -1 after a line at LOG_ERR.
class TARN_API CDbRestore {
 public:
  CDbRestore();
  ~CDbRestore();

  // Creates a database with empty tables by running /usr/local/bin/dbsetup, init and start.
  int setupEmptyDb();

  // Insert a row for every live record of the event journal, and of the stream journal that begins
  // at chunk `chunk` (2). Rows that are there already are replaced. A record that is bad in both
  // copies is skipped; an erased one ends the journal. A statement that fails ends the replay; the
  // rows before it stay.
  int restoreEventDb();
  int restoreStreamDb(short chunk);
  // The same, but what `before` has of the journal is not read again; null for nothing.
  int restoreEventDb(const tarn::JournalBytes* before);
  int restoreStreamDb(short chunk, const tarn::JournalBytes* before);
  // All else of these two, where the rows of a journal of `records` records, none of them bad, came
  // into the database on another way.
  int restoredBefore(tarn::JournalKind kind, uint32_t records);

  // After both replays: moves the free offset of each journal, on both its chunks, behind the
  // record of the row with the greatest key, and saves. The card may have lost power after a record
  // was written and before its management data was; the next insert would overwrite that record.
  // A journal without rows keeps its free offset if it is the place of a record, else gets 0.
  int recoverJournalManage();

  // Change one record on both copies, without testing its checksum and without moving any offset;
  // the record gets a good checksum. An offset that leaves no room for a record in its chunk counts
  // as a failed seek.
  // Replaces everything but the marker by *event, at event->backOffset. Always 0.
  int updateEventDBLogNative(const DB_EVENT* event);
  // Sets four fields of the stream record at `offset`.
  int updateStreamDBLogNative(short chunk, unsigned long status, unsigned long recSize,
                              unsigned long chunkSize, unsigned long endDate, unsigned long offset);
  // Marks the record at `offset` deleted. For a chunk other than 0 and 2 nothing is changed.
  int deleteDBLogNative(short chunk, unsigned long offset);

  // Repair of what a power loss interrupted; needs the rows of both replays. A recording whose row
  // has recSize 0 is walked, picture by picture, as far as it is intact; its row, its journal
  // record and its stream header are closed there, or all are deleted when nothing usable was
  // recorded, with the events that began with it. Audio rows and kinds that cannot be walked stay.
  int fixUpLastStream();
  // One video recording. store is open; the two chunk objects (picture, stream) are closed before
  // and after. *latestEnd is raised to the recording's end. 1, or 0 when a chunk cannot be opened
  // or the stream header cannot be read; nothing is changed then.
  int fixUpVideoStream(CTARNStreamManagerNative* store, CTARNStreamChunk* picture,
                       CTARNStreamChunk* stream, unsigned long streamID, unsigned short frameSet,
                       unsigned long chunkID, unsigned long chunkOffset, unsigned long status,
                       unsigned long startDate, unsigned long backOffset, unsigned long* latestEnd);
  // Does nothing: the walk cannot tell where audio ends. 0.
  int fixUpAudioStream(CTARNStreamManagerNative* store, CTARNStreamChunk* picture,
                       CTARNStreamChunk* stream, unsigned long* latestEnd);
  // Time stamp in the first `length` bytes of a picture: seconds; 0 when there is none, -1 when it
  // is none that 32 bits can hold.
  int getTimeStamp(const unsigned char* data, long length);
  // Writes `length` bytes at `offset` of a picture chunk, flushed; at most 32 KiB, and none behind
  // the chunk's end. As of every buffered write, the device's own failure is only logged.
  int writePictureChunk(short chunk, unsigned long offset, const void* data, long length);
  // Closes the newest event at the end of the newest recording, or deletes it when it began later.
  int fixLastEventDb();
  // Deletes every event that began at startDate (seconds) or later, with its journal record. A
  // recording that goes loses its events before its own record: power lost in between leaves it to
  // the next start, which begins again.
  int cleanupEventDb(unsigned long startDate);

  // Rebuild of the management files, after the repair: of the stream chunks from their rows and
  // stream headers (a chunk without rows is free; channels are not known any more, all get 0), of
  // the system log from the text of its active chunk.
  int recoverStreamManage();
  // The same, but a chunk with rows gets the channel and type of known[chunk], where that has a
  // channel, and one of which a header cannot be read or whose newest row is open counts as full. A
  // guarded one (manager/ManageFormat.h) becomes what known[chunk] says. In one save, so that power
  // lost meanwhile cannot take the channels.
  int recoverStreamManage(const CHUNK_MANAGE* known, int count);
  // And of rows whose header tells nothing any more, although the device gives it: where they are
  // the oldest or newest of their chunk, their data begins and ends where `known` says.
  int recoverStreamManage(const CHUNK_MANAGE* known, int count,
                          const std::vector<DB_STREAM>& headerless);
  int recoverSyslogManage();
  // The same, but what the device refuses is asked for again, and when it stays refused nothing is
  // saved and *unread says where: the saved end is older, and who writes on follows the lines that
  // are behind it. Damaged lines do not end the text where good ones follow (dblog/SyslogEnd.h).
  int recoverSyslogManage(std::string* unread);
  // Number of the chunk being written of a log type, and the move to the next one, which begins
  // empty. Only type 0 exists. The move is not saved.
  int syslogActiveID(CTARNEndlessManagerNative* store, unsigned char type);
  int incrementSyslogActiveID(CTARNEndlessManagerNative* store, unsigned char type);
};
