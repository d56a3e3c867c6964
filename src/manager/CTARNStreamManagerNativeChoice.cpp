// The choice of a chunk to record into, of CTARNStreamManagerNative.
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManagerNative.h"
#include "manager/ManageFormat.h"
#include "manager/ManagerMessages.h"

namespace {

constexpr char kSqlNewestChunk[] = "SELECT chunkID FROM STREAM ORDER BY streamID DESC LIMIT 1";
// Picture bytes that must stay free: room for a stream header, and never a full ring.
constexpr uint32_t kPictureReserve = 32;
// Chunk numbers are signed 16-bit everywhere.
constexpr int kAddressableChunks = 32768;

// First chunk that passes, in ascending order from the one after `last`, which is tried last of all
// `count`; -1 for none.
template <typename Test>
int findAfter(int last, int count, Test passes) {
  for (int step = 1; step <= count; ++step) {
    const int chunk = (last + step) % count;
    if (passes(chunk)) return chunk;
  }
  return -1;
}

}  // namespace

short CTARNStreamManagerNative::firstAvailableChunk(unsigned long needSize, signed char ch,
                                                    signed char type) {
  if (!hasRecord(0)) return -1;
  const int count = std::min<int>(m_numChunk, kAddressableChunks);
  const auto fits = [this, need = tarn::low32(needSize), ch](int chunk) {
    return hasRoom(chunk, need, ch);
  };
  const int newest = isStreamStore() ? newestStreamChunk() : -1;
  if (newest >= 0 && fits(newest)) {
    printf(tarn::kMsgStoreFoundAvailable, newest, ch, type);
    return static_cast<short>(newest);
  }
  const int last = std::max(newest, 0);
  int chunk = findAfter(last, count, [this](int candidate) { return isUnused(candidate); });
  if (chunk >= 0) {
    printf(tarn::kMsgStoreFoundUnused, chunk, ch, type);
    return static_cast<short>(chunk);
  }
  chunk = findAfter(last, count, fits);
  if (chunk >= 0) printf(tarn::kMsgStoreFoundAvailable, chunk, ch, type);
  return static_cast<short>(chunk);
}

bool CTARNStreamManagerNative::isStreamStore() const {
  return strcmp(m_suffix, tarn::kindSuffix(tarn::kFileStream)) == 0;
}

// Chunk of the newest row of STREAM; -1 when there is none or the card has no such chunk. A
// connection of its own: the database file is replaced when it is rebuilt.
int CTARNStreamManagerNative::newestStreamChunk() {
  CApiDb db;
  db.setSql(kSqlNewestChunk);
  if (!db.lastStatementDone()) {
    syslog(LOG_ERR, tarn::kMsgStoreSelectError);
    return -1;
  }
  if (db.getNTuple() != 1) return -1;
  const unsigned long chunk = db.getValue(0, 0);
  // Tested before it is narrowed: 65536 is not chunk 0.
  if (chunk >= std::min<unsigned long>(m_numChunk, kAddressableChunks)) return -1;
  return static_cast<int>(chunk);
}

bool CTARNStreamManagerNative::hasRoom(int chunk, uint32_t needSize, signed char ch) const {
  const CHUNK_MANAGE found = record(chunk);
  return found.chType == ch &&
         tarn::ringFree(found.streamUseOffset, found.streamFreeOffset, m_streamSize) >= needSize &&
         tarn::ringFree(found.pictureUseOffset, found.pictureFreeOffset, m_pictureSize) >
             kPictureReserve;
}

// The stream area of an unused chunk is not examined.
bool CTARNStreamManagerNative::isUnused(int chunk) const {
  const CHUNK_MANAGE found = record(chunk);
  return found.chType == tarn::kChannelUnused &&
         tarn::ringFree(found.pictureUseOffset, found.pictureFreeOffset, m_pictureSize) >
             kPictureReserve;
}
