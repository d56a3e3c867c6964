#pragma once

#include <cstdint>

#include "base/Export.h"
#include "chunk/CTARNEndlessChunk.h"
#include "chunk/ChunkEvent.h"

class CTARNManagerBase;

// Two endless chunks of one family that hold the same records at the same positions, so that a bad
// block or a torn write costs no record. A record is its payload followed by four bytes: 0, 0, and
// the CRC-16 of the payload, high byte first.
//
// `size` below is the whole record with its four bytes and crcLength the payload's length; the
// caller's buffer has room for all of it. A crcLength that leaves no room for the four bytes is -1.
// The original reaches the medium before the mirror is touched, so that one power loss never tears
// both copies.
//
// Failures are -1. One thread at a time may use an object. Managers stay the caller's and must live
// until the chunk is closed.
class TARN_API CTARNMirroredChunk {
 public:
  // Without memory for both chunks there is nothing that could be opened: ENOMEM.
  explicit CTARNMirroredChunk(signed char fileType);
  // Closes both chunks.
  ~CTARNMirroredChunk();
  CTARNMirroredChunk(const CTARNMirroredChunk&) = delete;
  CTARNMirroredChunk& operator=(const CTARNMirroredChunk&) = delete;

  // Open both for reading an event each, or for writing through a manager: 0, or -1 with neither
  // open. An open pair is refused with a warning and stays as it is.
  int openChunkFile(const CHUNK_EVENT* originalEvent, const CHUNK_EVENT* mirrorEvent);
  int openChunkFile(CTARNManagerBase* manager, unsigned short originalID, unsigned short mirrorID);
  // Do it with both, original first. The original's result unless that is 0, else the mirror's.
  int closeChunkFile();
  int fSync();

  // Appends a record to both at the original's free address and returns its size. crcLength 0
  // writes the record as it is. After a failure the free address is what it was.
  long write(void* buf, long size, long crcLength);
  // Writes a record to both at their current positions and returns its size. A negative crcLength
  // writes the record as it is. The free address stays; when only the mirror failed, it moves back
  // by `size` as after an append, and the journal's owner corrects it before the next insert.
  long writeNoSeek(void* buf, long size, long crcLength);
  // Reads a record and tests its CRC (none with a negative crcLength): size; the mirror's copy,
  // with a warning, when the original's cannot be read or is not valid; 0 when the event ends
  // inside the record; -1 when neither copy is good.
  long read(void* buf, long size, long crcLength);
  // One side's part of read(): size, 0 or -1.
  int readAndCheck(CTARNEndlessChunk* chunk, void* buf, long size, long crcLength);
  // As CTARNChunkBase::seek, on both. The original's position, or -1.
  long seek(long offset, int whence);
  // As CTARNChunkBase::seekEvent, on both or on neither. 0 (not the position), or negative.
  long seekEvent(long offset, int whence);

  // CRC-16 as in a record's last two bytes.
  unsigned short calcCrc(const void* data, unsigned long length);

  // Of the original.
  unsigned long getFreeSize() const { return isWhole() ? original->getFreeSize() : 0; }
  unsigned long getFreeAddr() const { return isWhole() ? original->getFreeAddr() : 0; }
  unsigned long getChunkSize() const { return isWhole() ? original->getChunkSize() : 0; }
  long currentOffset() { return isWhole() ? original->currentOffset() : -1; }
  int ConvertPartitionNumberToDeviceName(signed char partition, char* out);
  // As given with the events; 0 for a pair opened through a manager.
  unsigned short getChunkId() const { return originalID; }
  // Sets the free address of both to 0.
  void initFreeAddr();
  // Prints both chunks' numbers, sizes and addresses to standard output.
  void dispParameter();

  // Beyond the basic operations:

  // One side's record at its current position, whatever it is worth: true when all `size` bytes
  // came. Only that side moves, so seek before the next operation on both.
  bool readOriginal(void* buf, long size);
  bool readMirror(void* buf, long size);

  bool isOpen() const { return isWhole() && original->isOpen(); }
  // True when the free addresses of both came from the manager or from the caller.
  bool isUsageKnown() const {
    return isWhole() && original->isUsageKnown() && mirror->isUsageKnown();
  }
  // Correct the free address of both, for instance from the newest record found.
  void setFreeAddr(unsigned long address);
  // Brings both to the medium, original first, and tells no manager: 0, or the first failure. A
  // copy that has nothing new is left out, see CTARNChunkBase::flush().
  int flush();
  // As fSync(), but leaves out the flush of a copy that has nothing new.
  int settle();
  // Tells the manager the free address of both and touches no device; results as of fSync().
  int tellFreeAddr();
  // True when the last flush of either failed, whichever operation it belonged to.
  bool lastFlushFailed() const {
    return isWhole() && (original->lastFlushFailed() || mirror->lastFlushFailed());
  }

 protected:
  CTARNEndlessChunk* original;  // owned; null for want of memory
  CTARNEndlessChunk* mirror;    // the same
  uint16_t originalID = 0;
  uint16_t mirrorID = 0;
  int8_t fileType;
  CTARNManagerBase* manager = nullptr;  // not owned

 private:
  // False when there was no memory for both chunks: all is refused then.
  bool isWhole() const { return original != nullptr && mirror != nullptr; }
  bool canBeOpened() const;
  bool flushOriginal();
  long mirrorFailed(long result, long size);
  int both(int (CTARNChunkBase::*operation)());
};
