#pragma once

#include <cstdint>

#include "base/Export.h"
#include "fat/CFATAccess.h"
#include "manager/ChunkRecords.h"

// Owner of the management data of all stream chunks of the card: one CHUNK_MANAGE record per chunk,
// held in memory while the store is open and written to a main and a backup management file.
// Lives in the management server and in start-up recovery; every other process sends requests.
// Base of CTARNEndlessManagerNative, which keeps the same data for the one-area (ring) chunks.
//
// Offsets are bytes from the start of the area and wrap at the area size; use equal to free means
// empty. Chunk numbers run from 0 to numChunk() - 1. A number outside that range is refused (-1)
// by getUsage, getManageData, setUsage and setFree; the other operations read 0 for it and write
// nothing. Used by one thread at a time; takes no lock. Not copyable.
//
// Results: 0 done, -1 failed; openManageData also -2. Failures are logged at LOG_ERR.
class TARN_API CTARNStreamManagerNative {
 public:
  // A closed store for the kind suffix "ST".
  CTARNStreamManagerNative();
  CTARNStreamManagerNative(const CTARNStreamManagerNative&) = delete;
  CTARNStreamManagerNative& operator=(const CTARNStreamManagerNative&) = delete;

  // Opens the chunk file `chunkFileName` for the number of chunks and the sizes of both areas and
  // closes it again. Logs the count at LOG_INFO.
  virtual int getChunkInfo(const char* chunkFileName);
  // Closes the files. Changes that were not saved are lost.
  virtual ~CTARNStreamManagerNative();
  // Fills *usage from the record, picture pair first.
  virtual int getUsage(short chunk, CHUNK_USAGE* usage);
  // Sets the use offset of the stream (isStream not 0) or picture area; an offset at or beyond the
  // area's end is stored as 0. In memory only, until saveManageData.
  virtual int setUsage(short chunk, unsigned long offset, unsigned char isStream);
  // The same for the free offset.
  virtual int setFree(short chunk, unsigned long offset, unsigned char isStream);

  // Reads the main file and keeps both files open. `partition` is remembered only: the files are
  // always those of the recorder's own card. -2: the main file's CRC is wrong; the backup is not
  // consulted, that is the caller's decision. After any failure both files are closed. A store that
  // is open is closed first.
  int openManageData(unsigned short partition);
  // Closes both files. The records are kept for the next open when the backup file was open and
  // freed when it was not; numChunk() is 0 afterwards. Returns the result of the last close, -1
  // when nothing was open.
  int closeManageData();
  // Writes the records with their CRC to the backup file, flushes it, then to the main file and
  // flushes that, so that one whole copy is on the card at every moment. A failed step does not
  // keep the later ones from being tried; -1 when any failed, or when the store is closed.
  int saveManageData();

  // Beyond the basic operations: the same two for a recorder that must go on with one copy.
  // Opens as openManageData does; where the main file cannot be read or is bad, the records are the
  // backup's. 0 from the main file, kOneCopy from the backup; -1 or -2, of the main file, when the
  // backup is no better.
  static constexpr int kOneCopy = 1;
  int openManageDataFromEither(unsigned short partition);
  // Saves as saveManageData does, but a main file that was not good is the first to be written. 0
  // when both took the records, kOneCopy when one did (logged) and the next open will find them:
  // that is the main file, or the backup beside a main file that is not good. -1 otherwise.
  int saveManageDataToEither();

  // Copies the whole record.
  int getManageData(short chunk, CHUNK_MANAGE* record);
  // Sets both type bytes; always 0.
  int setChType(short chunk, signed char chType, signed char recType);
  // Sets the record type of every chunk; always 0.
  int setRecTypeAll(signed char recType);
  // Free bytes of the stream area and of the picture area. An area whose offsets are equal counts
  // as empty.
  unsigned long freeSize(short chunk);
  unsigned long freeSizePicture(short chunk);
  // Sum of freeSize over all chunks.
  long long freeSizeTotal();
  unsigned short numChunk();
  // Number of chunks that some channel owns (chType not -1).
  unsigned short numUsedChunk();
  // Size of the picture area (kind 0) or of the stream area (any other kind), in bytes.
  unsigned long getChunkSize(short kind);
  // Chooses a chunk for channel `ch` to record `needSize` bytes into: the chunk of the newest row
  // of STREAM if it is the channel's own and has room, else the next unused chunk after it, else
  // the next chunk of the channel with room. `type` is printed only. Opens the database. Returns
  // the chunk number, or -1.
  short firstAvailableChunk(unsigned long needSize, signed char ch, signed char type);
  // CRC-16 of `length` bytes (0x31C3 for "123456789"); prints it to standard output.
  unsigned short getCRC(const unsigned char* data, long length);

 protected:
  // True when the store holds a record for the chunk.
  bool hasRecord(int chunk) const;
  // Needs hasRecord(chunk).
  CHUNK_MANAGE record(int chunk) const;
  void setRecord(int chunk, const CHUNK_MANAGE& record);

  uint8_t* m_records;  // owned, from malloc; the management file's bytes, CRC included
  int m_mainHandle;    // of m_fat; -1 when not open
  int m_backupHandle;  // of m_fat; -1 when not open
  uint16_t m_numChunk;
  uint32_t m_pictureSize;  // bytes of the picture area
  uint32_t m_streamSize;   // bytes of the stream area, or of the one area of an endless chunk
  CFATAccess m_fat;
  uint16_t m_partition;  // as given to openManageData
  char m_suffix[3];

 private:
  bool isOpen() const;
  int openFiles();
  int openFile(int copy);
  void closeFiles();
  bool allocateRecords();
  int loadRecords();
  bool loadCopy(int handle);
  bool mainIsGood();
  bool saveMain();
  bool saveBackup();
  bool saveMainOnce();
  bool saveBackupOnce();
  bool writeCopy(int handle, const char* seekError, const char* writeError);
  bool flushMain();
  bool flushBackup();
  bool isStreamStore() const;
  int newestStreamChunk();
  bool hasRoom(int chunk, uint32_t needSize, signed char ch) const;
  bool isUnused(int chunk) const;

  uint16_t m_allocated;  // chunks that m_records has room for
  bool m_mainBad;        // the records were the backup's, and the main file was not saved since
};
