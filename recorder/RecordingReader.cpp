#include "recorder/RecordingReader.h"

#include <algorithm>
#include <cstdio>

#include "base/Wrap.h"
#include "chunk/CTARNStreamChunk.h"
#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "recorder/AnnexB.h"
#include "recorder/RecordingSpace.h"

namespace tarn {
namespace {

// Entries read at once: one block of the picture chunk's read buffer.
constexpr uint32_t kBlockEntries = 128;
// Ranges are checked here, against the area sizes; the event only has to be no obstacle.
constexpr uint32_t kWholeRing = 0x7FFFFFFF;
constexpr uint32_t kPage = 64;

CHUNK_EVENT eventOf(const DB_STREAM& row, uint32_t start) {
  CHUNK_EVENT event = {};
  event.chunkID = static_cast<uint16_t>(row.chunkID);
  event.partition = kRecorderPartition;
  event.startOffset = start;
  event.size = kWholeRing;
  return event;
}

}  // namespace

class RecordingReader::Impl {
 public:
  int open(const DB_STREAM& row);
  uint32_t refresh();
  bool picture(uint32_t index, PictureEntry* out);
  int64_t findKeyPictureBefore(PictureTime time);
  int64_t findPictureFrom(PictureTime time);
  bool readPicture(const PictureEntry& entry, std::vector<uint8_t>* out, bool withTimeStamp);

  const DB_STREAM& row() const { return row_; }
  const StreamHeader& header() const { return header_; }
  uint32_t count() const { return count_; }

 private:
  bool openChunks();
  bool loadBlock(uint32_t firstIndex);
  bool readAt(CTARNStreamChunk& chunk, uint32_t offset, uint8_t* out, uint32_t length);
  bool entryAt(uint32_t index, PictureEntry* out);
  uint32_t lastDecodedBy(PictureTime time);

  DB_STREAM row_ = {};
  StreamHeader header_;
  CTARNStreamChunk pictures_{0};
  CTARNStreamChunk stream_{1};
  uint32_t pictureSize_ = 0;
  uint32_t streamSize_ = 0;
  bool running_ = false;
  uint32_t count_ = 0;
  uint32_t blockFirst_ = 0;  // index of the first entry in block_
  uint32_t blockCount_ = 0;
  std::vector<uint8_t> block_;
};

int RecordingReader::Impl::open(const DB_STREAM& row) {
  row_ = row;
  if (row.chunkID > 0x7FFF ||
      !readStreamHeader(static_cast<int>(row.chunkID), row.chunkOffset, &header_)) {
    return -1;
  }
  if (!openChunks()) return -1;
  block_.resize(size_t{kBlockEntries} * kRecordSize);
  running_ = row.recSize == 0;
  // The header's slot is one of the ring's, so no recording has more entries than this.
  count_ = std::min(row.recSize, pictureSize_ / kRecordSize - 1);
  if (running_) refresh();
  return 0;
}

bool RecordingReader::Impl::openChunks() {
  CHUNK_EVENT pictures = eventOf(row_, row_.chunkOffset);
  CHUNK_EVENT stream = eventOf(row_, header_.dataOffset);
  if (pictures_.openChunkFile(&pictures) != 0 || stream_.openChunkFile(&stream) != 0) return false;
  pictureSize_ = static_cast<uint32_t>(pictures_.getChunkSize());
  streamSize_ = static_cast<uint32_t>(stream_.getChunkSize());
  return row_.chunkOffset < pictureSize_ && header_.dataOffset < streamSize_;
}

bool RecordingReader::Impl::readAt(CTARNStreamChunk& chunk, uint32_t offset, uint8_t* out,
                                   uint32_t length) {
  if (chunk.seek(static_cast<long>(offset), SEEK_SET) < 0) return false;
  return chunk.read(out, static_cast<long>(length)) == static_cast<long>(length) &&
         !chunk.lastReadFailed();
}

// Entries from firstIndex on, as many as the block holds and the ring can have.
bool RecordingReader::Impl::loadBlock(uint32_t firstIndex) {
  blockCount_ = 0;
  const uint32_t most = pictureSize_ / kRecordSize - 1;
  if (firstIndex >= most) return false;
  const uint32_t count = std::min(kBlockEntries, most - firstIndex);
  const uint32_t place =
      ringAdvance(row_.chunkOffset, (firstIndex + 1) * kRecordSize, pictureSize_);
  if (!readAt(pictures_, place, block_.data(), count * kRecordSize)) return false;
  blockFirst_ = firstIndex;
  blockCount_ = count;
  return true;
}

bool RecordingReader::Impl::entryAt(uint32_t index, PictureEntry* out) {
  const bool held = index >= blockFirst_ && index - blockFirst_ < blockCount_;
  if (!held && !loadBlock(index - index % kBlockEntries)) return false;
  const uint8_t* bytes = block_.data() + size_t{index - blockFirst_} * kRecordSize;
  return decodePictureEntry(bytes, out) && out->key == row_.streamID &&
         out->number == wrapAdd32(header_.firstNumber, index) && out->dataOffset < streamSize_ &&
         out->size < streamSize_;
}

uint32_t RecordingReader::Impl::refresh() {
  if (!running_) return count_;
  // What was read ahead may be older than what the writer added since; a seek elsewhere drops it.
  pictures_.seek(static_cast<long>(ringAdvance(row_.chunkOffset, pictureSize_ / 2, pictureSize_)),
                 SEEK_SET);
  blockCount_ = 0;
  PictureEntry entry;
  while (entryAt(count_, &entry)) ++count_;
  blockCount_ = 0;
  return count_;
}

bool RecordingReader::Impl::picture(uint32_t index, PictureEntry* out) {
  return index < count_ && entryAt(index, out);
}

// Index of the last picture decoded at or before `time`, 0 when all come after it. Decode times do
// not fall within a recording; at most one picture's worth of entries is read a step.
uint32_t RecordingReader::Impl::lastDecodedBy(PictureTime time) {
  uint32_t low = 0;
  uint32_t high = count_;
  while (high - low > 1) {
    const uint32_t middle = low + (high - low) / 2;
    PictureEntry entry;
    if (entryAt(middle, &entry) && !(time < entry.decodeTime())) {
      low = middle;
    } else {
      high = middle;
    }
  }
  return low;
}

int64_t RecordingReader::Impl::findKeyPictureBefore(PictureTime time) {
  if (count_ == 0) return -1;
  // A picture is decoded before it is presented, so the one looked for is not behind this.
  for (int64_t index = lastDecodedBy(time); index >= 0; --index) {
    PictureEntry entry;
    if (entryAt(static_cast<uint32_t>(index), &entry) && entry.isKey() &&
        !(time < entry.presentation)) {
      return index;
    }
  }
  return -1;
}

int64_t RecordingReader::Impl::findPictureFrom(PictureTime time) {
  // Pictures presented late are decoded early: begin with the key picture before the time.
  const int64_t key = findKeyPictureBefore(time);
  for (uint32_t index = key < 0 ? 0 : static_cast<uint32_t>(key); index < count_; ++index) {
    PictureEntry entry;
    if (entryAt(index, &entry) && !(entry.presentation < time)) return index;
  }
  return -1;
}

bool RecordingReader::Impl::readPicture(const PictureEntry& entry, std::vector<uint8_t>* out,
                                        bool withTimeStamp) {
  if (entry.dataOffset >= streamSize_ || entry.size >= streamSize_) return false;
  out->resize(entry.size);
  if (!readAt(stream_, entry.dataOffset, out->data(), entry.size)) return false;
  if (!withTimeStamp) out->resize(removeTimeStampSei(out->data(), out->size()));
  return true;
}

RecordingReader::RecordingReader() = default;
RecordingReader::~RecordingReader() = default;

int RecordingReader::open(const DB_STREAM& row) {
  impl_ = std::make_unique<Impl>();
  if (impl_->open(row) == 0) return 0;
  impl_.reset();
  return -1;
}

int RecordingReader::open(uint32_t streamID) {
  CApiDb db;
  DB_STREAM row = {};
  if (db.selectStream(streamID, &row) == 1) return open(row);
  impl_.reset();
  return -1;
}

void RecordingReader::close() { impl_.reset(); }
bool RecordingReader::isOpen() const { return impl_ != nullptr; }

const DB_STREAM& RecordingReader::row() const {
  static const DB_STREAM none = {};
  return impl_ ? impl_->row() : none;
}

const StreamHeader& RecordingReader::header() const {
  static const StreamHeader none;
  return impl_ ? impl_->header() : none;
}

uint32_t RecordingReader::pictureCount() const { return impl_ ? impl_->count() : 0; }
uint32_t RecordingReader::refresh() { return impl_ ? impl_->refresh() : 0; }

bool RecordingReader::picture(uint32_t index, PictureEntry* out) {
  return impl_ && impl_->picture(index, out);
}

int64_t RecordingReader::findKeyPictureBefore(PictureTime time) {
  return impl_ ? impl_->findKeyPictureBefore(time) : -1;
}

int64_t RecordingReader::findPictureFrom(PictureTime time) {
  return impl_ ? impl_->findPictureFrom(time) : -1;
}

bool RecordingReader::readPicture(const PictureEntry& entry, std::vector<uint8_t>* out,
                                  bool withTimeStamp) {
  return impl_ && impl_->readPicture(entry, out, withTimeStamp);
}

bool streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg, std::vector<DB_STREAM>* out) {
  out->clear();
  CApiDb db;
  DB_STREAM page[kPage];
  for (;;) {
    const int32_t count = db.selectRipList(page, kPage, out->size(), from, to, inTrg);
    if (db.getStatus() != 1) return false;  // an empty page of its own says nothing
    if (count > 0) out->insert(out->end(), page, page + count);
    if (count < static_cast<int32_t>(kPage)) return true;
  }
}

std::vector<DB_STREAM> streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg) {
  std::vector<DB_STREAM> rows;
  streamsOfPeriod(from, to, inTrg, &rows);
  return rows;
}

bool streamsOfEvent(const DB_EVENT& event, std::vector<DB_STREAM>* out) {
  const uint32_t from = event.startDate > event.preSec ? event.startDate - event.preSec : 0;
  const uint32_t to = event.endDate != 0 ? event.endDate : 0xFFFFFFFF;
  return streamsOfPeriod(from, to, 0, out);
}

std::vector<DB_STREAM> streamsOfEvent(const DB_EVENT& event) {
  std::vector<DB_STREAM> rows;
  streamsOfEvent(event, &rows);
  return rows;
}

}  // namespace tarn
