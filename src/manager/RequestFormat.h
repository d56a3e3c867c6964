#pragma once

#include <cstdint>

#include "base/Endian.h"
#include "chunk/ChunkArea.h"
#include "manager/ChunkRecords.h"
#include "manager/RequestResult.h"

// The one message that travels between managers and the management server, in both directions:
// 1024 bytes, 32-bit little-endian words. The answer is read over the request, so fields that the
// server does not touch come back as sent.
namespace tarn {

inline constexpr char kServerSocketPath[] = "/tmp/unix-sock-tarn-server";

// Request codes. 0 and 1 are not used.
enum RequestCode : uint32_t {
  kRequestGetUsage = 2,        // arg0 chunk -> data: CHUNK_USAGE
  kRequestSetChunkAttr = 3,    // arg0 chunk, arg1 and arg2 the two attributes
  kRequestSetFreeOffset = 4,   // arg0 chunk, arg1 offset, arg2 area
  kRequestSetUseOffset = 5,    // arg0 chunk, arg1 offset, arg2 area
  kRequestSaveManageData = 6,  // no arguments
  kRequestFreeSizeTotal = 7,   // -> data: 64-bit total
  kRequestNumUsedChunk = 8,    // -> arg1 count
  kRequestNumChunk = 9,        // -> arg1 count
  kRequestChunkSize = 10,      // arg1 area (ChunkArea.h) -> arg1 bytes
  kRequestGetChunkAttr = 11,   // arg0 chunk -> arg1, arg2 the two attributes
  kRequestFirstAvailable = 12  // arg0 needed bytes, arg1 channel, arg2 type -> arg0 chunk
};

//                                                              off size
inline constexpr uint32_t kRequestCommandOff = 0;     //   0    4  RequestCode
inline constexpr uint32_t kRequestKindOff = 4;        //   4    4  FileType of the manager
inline constexpr uint32_t kRequestResultOff = 8;      //   8    4  answer: 0 = done
inline constexpr uint32_t kRequestPartitionOff = 12;  //  12    4  partition number
inline constexpr uint32_t kRequestArg0Off = 16;       //  16    4
inline constexpr uint32_t kRequestArg1Off = 20;       //  20    4
inline constexpr uint32_t kRequestArg2Off = 24;       //  24    4
inline constexpr uint32_t kRequestDataOff = 32;       //  32   16  longer answers
inline constexpr uint32_t kRequestSize = 1024;        //  the rest is not used, sent as 0

// A request or answer. Signed numbers are sign-extended to their word by the caller's conversion
// through int32_t: fromSigned(chunk).
class RequestRecord {
 public:
  static uint32_t fromSigned(int32_t value) { return static_cast<uint32_t>(value); }

  uint8_t* bytes() { return bytes_; }
  const uint8_t* bytes() const { return bytes_; }

  uint32_t command() const { return word(kRequestCommandOff); }
  uint32_t kind() const { return word(kRequestKindOff); }
  uint32_t result() const { return word(kRequestResultOff); }
  uint32_t partition() const { return word(kRequestPartitionOff); }
  uint32_t arg0() const { return word(kRequestArg0Off); }
  uint32_t arg1() const { return word(kRequestArg1Off); }
  uint32_t arg2() const { return word(kRequestArg2Off); }

  void setCommand(uint32_t value) { setWord(kRequestCommandOff, value); }
  void setKind(uint32_t value) { setWord(kRequestKindOff, value); }
  void setResult(uint32_t value) { setWord(kRequestResultOff, value); }
  void setPartition(uint32_t value) { setWord(kRequestPartitionOff, value); }
  void setArg0(uint32_t value) { setWord(kRequestArg0Off, value); }
  void setArg1(uint32_t value) { setWord(kRequestArg1Off, value); }
  void setArg2(uint32_t value) { setWord(kRequestArg2Off, value); }

  CHUNK_USAGE usage() const {
    return {word(kRequestDataOff), word(kRequestDataOff + 4), word(kRequestDataOff + 8),
            word(kRequestDataOff + 12)};
  }
  void setUsage(const CHUNK_USAGE& usage) {
    setWord(kRequestDataOff, usage.useAddr);
    setWord(kRequestDataOff + 4, usage.freeAddr);
    setWord(kRequestDataOff + 8, usage.streamUseAddr);
    setWord(kRequestDataOff + 12, usage.streamFreeAddr);
  }
  int64_t total() const { return static_cast<int64_t>(getLe64(bytes_ + kRequestDataOff)); }
  void setTotal(int64_t total) { putLe64(bytes_ + kRequestDataOff, static_cast<uint64_t>(total)); }

 private:
  uint32_t word(uint32_t offset) const { return getLe32(bytes_ + offset); }
  void setWord(uint32_t offset, uint32_t value) { putLe32(bytes_ + offset, value); }

  uint8_t bytes_[kRequestSize] = {};
};
static_assert(sizeof(RequestRecord) == kRequestSize);

}  // namespace tarn
