#pragma once

#include <cstdint>

#include "base/Export.h"
#include "chunk/ChunkEvent.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"

class CTARNManagerBase;

// One chunk of a card, used as a ring: data is appended at the free address, the oldest data still
// wanted begins at the use address, and both wrap at the chunk's size. Common base of all chunk
// classes; each brings its own file name.
//
// A chunk is either opened for writing through a manager, which keeps its addresses between
// openings, or for reading an event: a range of the ring, found in the database. Positions and
// addresses are bytes from the chunk's first byte; sizes and offsets are cut to 32 bits.
//
// Failures return -1, log one line (LOG_ERR unless said) and leave the addresses as they were. An
// object is used by one thread at a time and holds no lock. Managers stay the caller's and must
// live until the chunk is closed.
class TARN_API CTARNChunkBase {
 public:
  CTARNChunkBase();

  // The order of the virtual operations is part of the interface.

  // Tells the manager the use address. The manager's result; -1 without a manager.
  virtual signed char setUsageToManager();
  // Tells the manager the free address. The manager's result; -1 without a manager.
  virtual signed char setFreeToManager();
  // Takes both addresses from the manager: 0; -1 without a manager, when it has no answer, or when
  // an answered address lies beyond the chunk. Also 0, with the addresses as they were, when the
  // manager answers without any (see CTARNStreamManager::getUsage()).
  virtual signed char getUsageFromManager();
  // Fills in the name under which the chunk is opened, and returns it. The base's version, the
  // picture tag and the number, opens nothing.
  virtual char* makeFatFileName();
  // Closes the chunk. A derived class closes it in its own destructor: from here the manager would
  // be called as for a base chunk.
  virtual ~CTARNChunkBase();
  // Appends size bytes at the free address, across the ring's end where needed, and moves the free
  // address. At least one byte of the ring stays free, or nothing is written; so both addresses
  // must be known, from the manager or from the caller. Returns size. Whether
  // a buffered write reached the device shows later, see CFATAccess.
  virtual long write(void* buf, long size);

  CTARNChunkBase(const CTARNChunkBase&) = delete;
  CTARNChunkBase& operator=(const CTARNChunkBase&) = delete;

  // Opens chunk chunkID for writing through manager: 0 or -1. A number that the card's family does
  // not have is refused. When the manager does not tell the addresses the chunk is open all the
  // same, see isUsageKnown(). Without a manager opens as openMode and the event range were set
  // before. An open chunk is refused with a warning and stays as it is.
  int openChunkFile(CTARNManagerBase* manager, unsigned short chunkID);
  // Opens the event's chunk for reading the event, from its start: 0 or -1. Refused when the event
  // has size 0 or starts beyond the chunk, and when the chunk is open, which then stays as it is.
  int openChunkFile(const CHUNK_EVENT* event);
  // The common part: opens the file for mode 1 (read an event), 2 (write through a manager) or any
  // other (read and write), and returns the handle or -1. Of an open chunk it returns the handle,
  // with a warning.
  int openChunkLow(long mode);
  // Closes; a chunk opened for writing is synchronised first. 0, or -1 when it is not open or does
  // not close.
  int closeChunkFile();
  // Brings everything written to the medium, then tells the manager the free address: the manager's
  // result, -1 without a manager. The device is flushed whether or not this object has written.
  // While the free address is not known, and of a chunk that is closed, the manager is told
  // nothing: -1.
  int fSync();

  // Writes size bytes at the current position, across the ring's end where needed, and returns
  // size. The free address stays.
  long writeNoSeek(void* buf, long size);
  // Reads size bytes at the current position, across the ring's end where needed. An event is never
  // read past its end: fewer bytes come back, 0 at the end or behind it.
  long read(void* buf, long size);

  // Moves to a position of the ring and returns it. SEEK_CUR wraps at the ring's end; SEEK_SET does
  // not. A position before the chunk is refused without a line.
  long seek(long offset, int whence);
  // The same inside the event's range: SEEK_SET counts from its start and SEEK_END from its end,
  // both refused outside it. SEEK_CUR outside the range is a warning only. Returns the position in
  // the chunk.
  long seekEvent(long offset, int whence);

  // Device of a partition number into out, which has room for 15 characters. Always 1; a number
  // without a device of its own gives "/tmp/dev/mmc".
  static int ConvertPartitionNumberToDeviceName(signed char partition, char* out);

  // Set an address. In an open chunk the chunk's size is stored as 0, and an address beyond the
  // chunk is refused with a warning.
  void setUseAddr(unsigned long address);
  void setFreeAddr(unsigned long address);
  // Recomputes the free and used bytes from the addresses. Equal addresses mean empty.
  void calcFreeSize();

  unsigned long getFreeSize() const { return freeSize; }  // bytes
  unsigned long getFreeAddr() const { return freeAddr; }
  short getChunkId() const { return chunkID; }
  unsigned long getChunkSize() const { return chunkSize; }  // bytes
  // Position in the chunk, or -1.
  long currentOffset();
  // Print the position, or number, addresses and free space, to standard output.
  void printCurrentOffset();
  void disp_kanri_data();

  // Beyond the basic operations:

  bool isOpen() const { return handle != -1; }
  // True when the free address came from the manager or from the caller, since the chunk was
  // opened. Until then nothing is written at it.
  bool isUsageKnown() const { return usageKnown; }
  unsigned long getUseAddr() const { return useAddr; }
  unsigned long getUseSize() const { return useSize; }  // bytes
  const char* getDisplayName() const { return displayName; }
  // Reads at most `size` bytes in whole records of `unit` bytes, as read() would, but only of what
  // an earlier read brought from the device already. Fewer bytes, or 0, come back when that is used
  // up or the event or the chunk ends.
  long readAhead(void* buf, long size, long unit);
  // Brings everything written to the medium and tells nobody: 0, or the device's result. Does not
  // touch the device when nothing was written since the last flush that worked. The first flush of
  // an open chunk is always the device's: a process that was killed may have left something.
  int flush();
  // flush(), then tells the manager as fSync() does, with its result: for those who flush after
  // each write of their own.
  int settle();
  // Tells the manager the free address where it is known: the manager's result, else -1.
  int tellFreeAddr();
  // True when the last flush of the device failed, be it flush()'s, fSync()'s or that of a close.
  bool lastFlushFailed() const { return flushFailed; }
  // True when something that was written since the chunk was opened is not on the medium for all
  // that is known, see CFATAccess. Asked after a flush it covers all writes before it.
  bool hasLostData() const { return fat.hasLostData(handle); }
  // True when the device did not deliver all that the last read() asked for, although a buffered
  // read returned its full size.
  bool lastReadFailed();

 protected:
  enum : int32_t { kOpenForEvent = 1, kOpenForWrite = 2 };

  // Fills in "device:TAGnnnn" and returns it.
  char* makeTaggedName(const char* tag);
  // Takes what a manager answered; result is the manager's. 0 or -1.
  signed char takeUsage(int result, const CHUNK_USAGE& usage);
  // Cuts an address to 32 bits and the chunk's size to 0. False, with a warning, beyond the chunk.
  bool ringAddress(unsigned long address, const char* function, uint32_t* out) const;
  // Device position of the chunk, or -1. Positions before the chunk are refused with EINVAL.
  long seekTo(uint32_t position);
  // Writes at `position`, where the handle already stands.
  long writeAt(uint32_t position, const void* buf, uint32_t size);
  // Where the free address is after `size` more bytes.
  uint32_t freeAddrAfter(uint32_t size) const;

  int16_t chunkID = 0;
  uint8_t kind = 1;         // stream chunks: 0 picture area, 1 stream area
  int32_t handle = -1;      // of fat; -1: closed
  uint32_t freeSize = 0;    // bytes
  uint32_t useSize = 0;     // bytes
  uint32_t chunkSize = 0;   // bytes
  uint32_t eventStart = 0;  // first byte of the event
  uint32_t eventSize = 0;   // bytes; 0: no event
  int32_t openMode = 0;     // 1 reading an event, 2 writing through a manager
  int8_t partition = tarn::kRecorderPartition;
  char fatFileName[tarn::kChunkFileNameRoom] = {};
  char displayName[16] = {};  // label for diagnostics
  uint32_t useAddr = 0;
  uint32_t freeAddr = 0;
  CTARNManagerBase* manager = nullptr;  // not owned; null when opened for an event
  CFATAccess fat;
  bool usageKnown = false;
  bool useKnown = false;  // the same of the use address
  bool unflushed = true;  // something may have been written since the last flush that worked
  bool flushFailed = false;
  bool firstPartFailed = false;  // of the last read, which went across the ring's end

 private:
  int flushDevice();
  bool refuseOpenChunk();
  int openForWrite(CTARNManagerBase* newManager);
  int openWithoutManager();
  bool refuseForeignNumber(long mode);
  bool writePiece(const void* buf, uint32_t size);
  bool readPiece(void* buf, uint32_t size, bool reportSize);
  uint32_t eventBytesBefore(uint32_t position) const;
  bool cutToEvent(uint32_t position, uint32_t* size) const;
  long seekEventFromCurrent(int32_t offset);
  uint32_t forwardTarget(uint32_t position, uint32_t offset) const;
  uint32_t backwardTarget(uint32_t position, int32_t offset) const;
  long seekEventFromStart(int32_t offset);
  long seekEventFromEnd(int32_t offset);
  bool eventWraps() const;
  uint32_t eventLastByte() const;
};
