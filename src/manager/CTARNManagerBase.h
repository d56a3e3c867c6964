#pragma once

#include <cstdint>

#include "base/Export.h"
#include "manager/ChunkRecords.h"

class CMesgClient;
namespace tarn {
class RequestRecord;
}

// Client side of chunk management: each operation sends one request to the management server and
// waits for its answer. Offsets are bytes from the start of the chunk's area.
//
// Used by one thread at a time; takes no lock. Nothing is retried; after a failed request the next
// one connects again, at most once a second. Results: 0 done, -1 failed unless said otherwise; each
// failure logs one LOG_ERR line. An operation before openManageData fails. A server that does not
// answer is waited for as long as tarn::RequestPatience allows; then the connection is dropped, as
// it is at once when the server has closed it.
//
// Owners call closeManageData before they destroy a manager: destructors do not free the client.
class TARN_API CTARNManagerBase {
 public:
  // Stream kind, the recorder's partition, display name "dummy".
  CTARNManagerBase();
  CTARNManagerBase(const CTARNManagerBase&) = delete;
  CTARNManagerBase& operator=(const CTARNManagerBase&) = delete;

  virtual ~CTARNManagerBase();
  // Fills useAddr and freeAddr of *usage; the stream pair is left as it is.
  virtual int getUsage(short chunk, CHUNK_USAGE* usage);
  virtual int setUseOffset(short chunk, unsigned long offset);

  // Creates the client and asks for the chunk count and size. Close an open manager first: its
  // client is neither checked nor freed, but disconnected.
  int openManageData();
  // Destroys the client; always 0.
  int closeManageData();
  // The two attribute bytes: channel and record type, or the active flag of a syslog chunk.
  int getChunkAttr(short chunk, signed char* attr1, signed char* attr2);
  int setChunkAttr(short chunk, signed char attr1, signed char attr2);
  int setFreeOffset(short chunk, unsigned long offset);
  // Has the server write the management data of this kind to the card.
  int saveManageData();
  // Free bytes of the chunk; 0 on failure.
  unsigned long freeSize(short chunk);
  // Free bytes of all chunks of this kind; -1 on failure.
  long long getFreeSizeTotal();
  // Chunk count as of openManageData.
  unsigned short getNumChunk();
  // Number of chunks in use; 65535 on failure.
  unsigned short getNumUsedChunk();
  // Chunk size as of openManageData; for stream chunks the size of the stream area.
  unsigned long getChunkSize();
  // Chunk with room for needSize bytes for channel 0, or -1.
  short firstAvailableChunk(unsigned long needSize);
  signed char getPartitionNumber();
  // Releases the `size` oldest bytes, which start at `start`, by moving the use offset to their
  // end. A size beyond the chunk's is cut to it; a range that does not fit the data in use is
  // logged at LOG_WARNING and deleted all the same. Not saved. Returns the size deleted, or -1.
  int deleteData(short chunk, unsigned long start, unsigned long size);

  // Operation beyond the basic ones: what the server answered to the last request, one of the
  // results of manager/RequestResult.h; kResultUnanswered when nothing came. It tells a server that
  // refuses from one that is not there.
  uint32_t lastResult() const;

 protected:
  // A zeroed request of this manager with its command, kind, partition and result filled in.
  tarn::RequestRecord newRequest(uint32_t command) const;
  // The same with a chunk number in arg0.
  tarn::RequestRecord newRequest(uint32_t command, short chunk) const;
  // Sends the request and reads the answer over it. 0, or -1 after a log line with `word`.
  int request(tarn::RequestRecord& record, const char* word);
  // Size of the area of kAreaPicture or kAreaStream, asked during openManageData.
  int requestAreaSize(uint8_t area, uint32_t* size);

  uint16_t m_numChunk;
  int8_t m_partition;
  int8_t m_kind;           // FileType that the requests name
  char m_name[24];         // display name
  CMesgClient* m_client;   // owned from openManageData to closeManageData; else null
  uint32_t m_pictureSize;  // bytes; stream manager only
  uint32_t m_chunkSize;    // bytes; for a stream manager the stream area

 private:
  enum class Outcome { Done, WriteFailed, ReadFailed, Refused };
  Outcome exchange(tarn::RequestRecord& record);

  uint32_t m_lastResult;
};
