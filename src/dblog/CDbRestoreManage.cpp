#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "chunk/CTARNEndlessChunk.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/ChunkArea.h"
#include "chunk/LogChunks.h"
#include "chunk/StreamHeaderFormat.h"
#include "dblog/CDbRestore.h"
#include "dblog/CheckedSql.h"
#include "dblog/RepairMessages.h"
#include "dblog/RestoreStores.h"
#include "dblog/SyslogEnd.h"
#include "dblog/SyslogScan.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNStreamManagerNative.h"
#include "manager/ManageFormat.h"

// The rebuild of the management data: of the stream chunks from the repaired rows, of the system
// log from its text.

namespace {

constexpr char kSqlOldestInChunk[] =
    "SELECT chunkOffset FROM STREAM WHERE chunkID = %u ORDER BY streamID ASC LIMIT 1";
constexpr char kSqlNewestInChunk[] =
    "SELECT chunkOffset, chunkSize FROM STREAM WHERE chunkID = %u ORDER BY streamID DESC LIMIT 1";

constexpr int kSyslogType = 0;  // the only one
constexpr short kSyslogFirstChunk = 0;

// A device that refuses a read may give it a moment later.
constexpr int kTries = 5;
constexpr useconds_t kPauseUs = 10000;

// Until `read` gets it, `tries` times at most.
template <typename Read>
bool readPatiently(int tries, Read&& read) {
  while (!read()) {
    if (--tries <= 0) return false;
    usleep(kPauseUs);
  }
  return true;
}

// Reads the stream header at `offset` of a picture chunk. False after a message.
bool readStreamHeader(CTARNStreamChunk* picture, short chunk, uint32_t offset, uint8_t* header) {
  const CHUNK_EVENT event = {static_cast<uint16_t>(chunk), tarn::kRecorderPartition, offset,
                             tarn::kPictureRecordSize};
  if (picture->openChunkFile(&event) != 0) {
    syslog(LOG_ERR, tarn::kMsgManageOpenChunk);
    return false;
  }
  // A header that the device failed to deliver arrives as zeros.
  const bool good =
      picture->read(header, tarn::kPictureRecordSize) == long{tarn::kPictureRecordSize} &&
      !picture->lastReadFailed();
  if (!good) syslog(LOG_ERR, tarn::kMsgManageRead);
  picture->closeChunkFile();
  return good;
}

// Behind `size` bytes from `start` in an area. Kept on purpose: an end that falls on the area's own
// is its size, not 0; the store makes it 0.
uint32_t areaEnd(uint32_t start, uint32_t size, uint32_t areaSize) {
  return tarn::wrapSub32(areaSize, start) < size
             ? tarn::wrapAdd32(tarn::wrapSub32(start, areaSize), size)
             : tarn::wrapAdd32(start, size);
}

uint32_t ringBack(uint32_t offset, uint32_t size, uint32_t areaSize) {
  return offset >= size ? offset - size : areaSize - (size - offset);
}

class StreamManageRecovery {
 public:
  // A header is asked for `tries` times, and not at all of the rows `headerless`.
  StreamManageRecovery(CTARNStreamManagerNative* store, int tries,
                       const std::vector<DB_STREAM>& headerless)
      : store_(store),
        tries_(tries),
        headerless_(headerless),
        pictureSize_(tarn::low32(store->getChunkSize(tarn::kAreaPicture))),
        streamSize_(tarn::low32(store->getChunkSize(tarn::kAreaStream))) {}

  // False: the device did not tell the sizes, by which every place would come out wrong.
  bool hasSizes() const { return pictureSize_ != 0 && streamSize_ != 0; }

  void reset() {
    for (int chunk = 0; chunk < store_->numChunk(); ++chunk) {
      const auto number = static_cast<short>(chunk);
      store_->setFree(number, 0, tarn::kAreaStream);
      store_->setFree(number, 0, tarn::kAreaPicture);
      store_->setUsage(number, 0, tarn::kAreaStream);
      store_->setUsage(number, 0, tarn::kAreaPicture);
      store_->setChType(number, tarn::kChannelUnused, 0);
    }
  }

  // -1 when a query fails. `known`: null where nothing is known.
  int recover(short chunk, const CHUNK_MANAGE* known) {
    known_ = known;
    blind_ = oldestRead_ = false;
    if (select(kSqlOldestInChunk, chunk) != 0) return -1;
    if (database_.getNTuple() == 0) return 0;
    if (!setUse(chunk, database_.getValue(0, 0))) return 0;
    if (select(kSqlNewestInChunk, chunk) != 0) return -1;
    if (database_.getNTuple() > 0)
      setFree(chunk, database_.getValue(0, 0), database_.getValue(0, 1));
    return 0;
  }

  // What the last recovered chunk holds is not known: a header was not delivered, or its newest row
  // is still open because nothing of it was. Its rings count as full, so that nothing is written
  // over what may come back at a later start; deleting its rows, oldest first, makes room again.
  // Where the oldest one's header is missing its data begins where it did when it was last saved.
  void guard(short chunk, const CHUNK_MANAGE& known) {
    CHUNK_MANAGE present{};
    if (!blind_ || store_->getManageData(chunk, &present) != 0) return;
    if (!oldestRead_) {
      present.streamUseOffset = known.streamUseOffset;
      store_->setUsage(chunk, present.streamUseOffset, tarn::kAreaStream);
    }
    store_->setFree(chunk,
                    ringBack(present.pictureUseOffset, tarn::kPictureRecordSize, pictureSize_),
                    tarn::kAreaPicture);
    store_->setFree(chunk, ringBack(present.streamUseOffset, 1, streamSize_), tarn::kAreaStream);
  }

  // A guarded chunk stays as it was saved, whatever the rows say.
  void keep(short chunk, const CHUNK_MANAGE& known) {
    store_->setUsage(chunk, known.pictureUseOffset, tarn::kAreaPicture);
    store_->setFree(chunk, known.pictureFreeOffset, tarn::kAreaPicture);
    store_->setUsage(chunk, known.streamUseOffset, tarn::kAreaStream);
    store_->setFree(chunk, known.streamFreeOffset, tarn::kAreaStream);
    store_->setChType(chunk, known.chType, known.recType);
  }

  // Of a chunk that rows use; a free one is nobody's.
  void setChannel(short chunk, const CHUNK_MANAGE& known) {
    CHUNK_MANAGE present{};
    if (known.chType < 0 || store_->getManageData(chunk, &present) != 0) return;
    if (present.chType >= 0) store_->setChType(chunk, known.chType, known.recType);
  }

 private:
  int select(const char* format, short chunk) {
    char sql[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // one of the two texts above
    snprintf(sql, sizeof sql, format, static_cast<unsigned>(chunk));
#pragma GCC diagnostic pop
    if (tarn::selected(&database_, sql)) return 0;
    syslog(LOG_ERR, tarn::kMsgRepairSelect);
    return -1;
  }

  bool readHeader(short chunk, uint32_t offset, uint8_t* header) {
    return readPatiently(tries_,
                         [&] { return readStreamHeader(&picture_, chunk, offset, header); });
  }

  bool setUse(short chunk, uint32_t chunkOffset) {
    uint8_t header[tarn::kPictureRecordSize];
    store_->setChType(chunk, 0, 0);
    store_->setUsage(chunk, chunkOffset, tarn::kAreaPicture);
    if (isHeaderless(chunk, chunkOffset)) {
      oldestRead_ = true;
      store_->setUsage(chunk, known_->streamUseOffset, tarn::kAreaStream);
      return true;
    }
    if (!readHeader(chunk, chunkOffset, header)) {
      blind_ = true;
      return false;
    }
    oldestRead_ = true;
    store_->setUsage(chunk, tarn::getLe32(header + tarn::kHeaderDataOffsetOff), tarn::kAreaStream);
    return true;
  }

  void setFree(short chunk, uint32_t chunkOffset, uint32_t chunkSize) {
    uint8_t header[tarn::kPictureRecordSize];
    store_->setFree(chunk, areaEnd(chunkOffset, chunkSize, pictureSize_), tarn::kAreaPicture);
    blind_ = chunkSize == 0;  // a closed row has a header and an entry at least
    if (isHeaderless(chunk, chunkOffset)) {
      store_->setFree(chunk, known_->streamFreeOffset, tarn::kAreaStream);
      return;
    }
    if (!readHeader(chunk, chunkOffset, header)) {
      blind_ = true;
      return;
    }
    store_->setFree(chunk,
                    areaEnd(tarn::getLe32(header + tarn::kHeaderDataOffsetOff),
                            tarn::getLe32(header + tarn::kHeaderDataSizeOff), streamSize_),
                    tarn::kAreaStream);
  }

  bool isHeaderless(short chunk, uint32_t chunkOffset) const {
    return known_ != nullptr &&
           std::any_of(headerless_.begin(), headerless_.end(), [&](const DB_STREAM& row) {
             return row.chunkID == static_cast<uint16_t>(chunk) && row.chunkOffset == chunkOffset;
           });
  }

  CTARNStreamManagerNative* store_;
  const int tries_;
  const std::vector<DB_STREAM>& headerless_;
  const CHUNK_MANAGE* known_ = nullptr;
  uint32_t pictureSize_;
  uint32_t streamSize_;
  CTARNStreamChunk picture_{0};
  CApiDb database_;
  bool blind_ = false;
  bool oldestRead_ = false;
};

int saveAndClose(CTARNStreamManagerNative* store) {
  if (tarn::saveForRestore(store) != 0) return -1;
  store->closeManageData();
  return 0;
}

// As below, but past what is damaged, and only of text that the device gave. False, with *end where
// it gave nothing.
bool syslogEnd(CTARNEndlessChunk* chunk, uint32_t size, uint32_t* end) {
  tarn::SyslogEnd scan;
  char block[tarn::kLogBlockBytes + 1];
  for (uint32_t position = 0; position < size;) {
    const uint32_t length = std::min(tarn::kLogBlockBytes, size - position);
    *end = position;
    const bool given = readPatiently(kTries, [&] {
      return chunk->seek(static_cast<long>(position), SEEK_SET) >= 0 &&
             chunk->read(block, static_cast<long>(length)) == static_cast<long>(length) &&
             !chunk->lastReadFailed();
    });
    if (!given) return false;
    if (!scan.addBlock(block, length)) break;
    position += length;
  }
  *end = scan.freeOffset();
  return true;
}

// Scans an open syslog chunk from its start: where its newest text ends.
uint32_t syslogEnd(CTARNEndlessChunk* chunk) {
  tarn::SyslogScan scan;
  char block[tarn::SyslogScan::kBlockSize + 1];
  for (;;) {
    const long got = chunk->read(block, tarn::SyslogScan::kBlockSize);
    if (got <= 0 || !scan.addBlock(block, static_cast<size_t>(got))) return scan.freeOffset();
  }
}

}  // namespace

int CDbRestore::recoverStreamManage() { return recoverStreamManage(nullptr, 0); }

int CDbRestore::recoverStreamManage(const CHUNK_MANAGE* known, int count) {
  return recoverStreamManage(known, count, {});
}

int CDbRestore::recoverStreamManage(const CHUNK_MANAGE* known, int count,
                                    const std::vector<DB_STREAM>& headerless) {
  CTARNStreamManagerNative store;
  if (tarn::openForRestore(&store) != 0) return -1;
  StreamManageRecovery recovery(&store, known != nullptr ? kTries : 1, headerless);
  if (known != nullptr && !recovery.hasSizes()) return -1;
  recovery.reset();
  for (int chunk = 0; chunk < store.numChunk(); ++chunk) {
    const CHUNK_MANAGE* before = known != nullptr && chunk < count ? &known[chunk] : nullptr;
    if (before != nullptr && tarn::isGuarded(before->chType)) {
      recovery.keep(static_cast<short>(chunk), *before);
      continue;
    }
    if (recovery.recover(static_cast<short>(chunk), before) != 0) return -1;
    if (before != nullptr) recovery.guard(static_cast<short>(chunk), *before);
  }
  for (int chunk = 0; chunk < store.numChunk() && chunk < count; ++chunk) {
    recovery.setChannel(static_cast<short>(chunk), known[chunk]);
  }
  return saveAndClose(&store);
}

int CDbRestore::syslogActiveID(CTARNEndlessManagerNative* store, unsigned char type) {
  CHUNK_MANAGE record{};
  if (type != kSyslogType) {
    syslog(LOG_ERR, tarn::kMsgSyslogType, static_cast<unsigned>(type));
    return -1;
  }
  return store->getManageData(kSyslogFirstChunk, &record) == 0 ? record.chType : -1;
}

int CDbRestore::incrementSyslogActiveID(CTARNEndlessManagerNative* store, unsigned char type) {
  if (type != kSyslogType) {
    syslog(LOG_ERR, tarn::kMsgSyslogType, static_cast<unsigned>(type));
    return -1;
  }
  const int active = syslogActiveID(store, type);
  auto next = static_cast<int8_t>(active + 1);
  if (next < 0 || next >= tarn::kLogChunks) next = 0;  // bytes above 127 are large, not negative
  store->setChType(kSyslogFirstChunk, next, 0);
  store->setFree(next, 0, tarn::kAreaStream);
  return 0;
}

int CDbRestore::recoverSyslogManage() { return recoverSyslogManage(nullptr); }

int CDbRestore::recoverSyslogManage(std::string* unread) {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  if (tarn::openForRestore(&store) != 0) return -1;
  // The device did not tell it, and without it the store has no records either.
  if (unread != nullptr && store.getChunkSize(tarn::kAreaStream) == 0) return -1;
  const int active = syslogActiveID(&store, kSyslogType);
  if (active < 0) {
    syslog(LOG_ERR, tarn::kMsgSyslogActive, kSyslogType);
    return saveAndClose(&store);
  }
  CTARNEndlessChunk chunk(tarn::kFileSyslog);
  const CHUNK_EVENT whole = {static_cast<uint16_t>(active), tarn::kRecorderPartition, 0,
                             tarn::low32(store.getChunkSize(tarn::kAreaStream))};
  // A number that the card does not have would lead to somebody else's bytes.
  if (active >= store.numChunk() || chunk.openChunkFile(&whole) != 0) {
    syslog(LOG_ERR, tarn::kMsgManageOpenChunk);
    return -1;
  }
  uint32_t end = 0;
  if (unread == nullptr) {
    end = syslogEnd(&chunk);
  } else if (!syslogEnd(&chunk, whole.size, &end)) {
    *unread = "syslog chunk " + std::to_string(active) + " offset " + std::to_string(end);
    return 0;
  }
  chunk.closeChunkFile();
  store.setFree(static_cast<short>(active), end, tarn::kAreaStream);
  return saveAndClose(&store);
}
