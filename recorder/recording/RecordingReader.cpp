#include "recorder/recording/RecordingReader.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Crc16.h"
#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/recording/StreamPages.h"

namespace tarn {
namespace {

constexpr uint32_t kPage = 64;

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
  bool isDamaged() const { return damaged_; }
  Delivery delivered() const { return delivered_; }
  bool lackedMemory() const { return lackedMemory_; }
  void lackMemory() { lackedMemory_ = true; }

 private:
  bool entryAt(uint32_t index, PictureEntry* out);
  uint32_t lastDecodedBy(PictureTime time);

  DB_STREAM row_ = {};
  StreamHeader header_;
  std::unique_ptr<RecordingIndex> index_;
  std::unique_ptr<ChunkSource> stream_;
  bool running_ = false;
  int64_t correctionUs_ = 0;
  uint32_t count_ = 0;
  bool damaged_ = false;
  Delivery delivered_ = Delivery::kGood;
  bool lackedMemory_ = false;
};

int RecordingReader::Impl::open(const DB_STREAM& row) {
  row_ = row;
  index_ = std::make_unique<RecordingIndex>(row);
  if (index_->header(&header_) != Delivery::kGood) {
    // Its entries tell as much as is needed to read it.
    header_ = StreamHeader();
    header_.firstNumber = index_->firstNumber();
    if (header_.firstNumber == 0) return -1;
  }
  stream_ = std::make_unique<ChunkSource>(kFileStream, row.chunkID, O_RDONLY);
  if (!stream_->isOpen()) return -1;
  correctionUs_ = rowCorrection(row, index_.get()) * 1000000;
  running_ = row.recSize == 0;
  // The header's slot is one of the ring's, so no recording has more entries than this.
  count_ = std::min(row.recSize, index_->capacity());
  if (running_) refresh();
  return 0;
}

bool RecordingReader::Impl::entryAt(uint32_t index, PictureEntry* out) {
  delivered_ = index_->entry(index, out);
  const bool good =
      delivered_ == Delivery::kGood && out->number == wrapAdd32(header_.firstNumber, index);
  out->presentation = PictureTime::fromMicros(out->presentation.totalMicros() + correctionUs_);
  return good;
}

uint32_t RecordingReader::Impl::refresh() {
  if (!running_) return count_;
  // What was read ahead may be older than what the writer added since.
  index_->forget();
  PictureEntry entry;
  while (entryAt(count_, &entry)) ++count_;
  index_->forget();
  return count_;
}

bool RecordingReader::Impl::picture(uint32_t index, PictureEntry* out) {
  delivered_ = Delivery::kBad;
  lackedMemory_ = false;
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
  lackedMemory_ = false;
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
  damaged_ = false;
  delivered_ = Delivery::kBad;
  lackedMemory_ = false;
  if (entry.dataOffset >= stream_->size() || entry.size >= stream_->size()) return false;
  out->resize(entry.size);
  delivered_ = stream_->read(entry.dataOffset, out->data(), entry.size);
  if (delivered_ != Delivery::kGood) return false;
  damaged_ =
      entry.checksum != 0 && entry.checksum != pictureChecksum(crc16(out->data(), out->size()));
  if (!withTimeStamp) out->resize(removeTimeStampSei(out->data(), out->size()));
  return true;
}

RecordingReader::RecordingReader() = default;
RecordingReader::~RecordingReader() = default;

int RecordingReader::open(const DB_STREAM& row) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> int {
        impl_ = std::make_unique<Impl>();
        if (impl_->open(row) == 0) return 0;
        impl_.reset();
        return -1;
      },
      [&]() -> int {
        impl_.reset();
        return -1;
      });
}

int RecordingReader::open(uint32_t streamID) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> int {
        CApiDb db;
        DB_STREAM row = {};
        if (db.selectStream(streamID, &row) == 1) return open(row);
        impl_.reset();
        return -1;
      },
      [&]() -> int {
        impl_.reset();
        return -1;
      });
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
uint32_t RecordingReader::refresh() {
  return orNoMemory(
      "RecordingReader", [&]() -> uint32_t { return impl_ ? impl_->refresh() : 0; },
      [&]() -> uint32_t { return pictureCount(); });
}

bool RecordingReader::picture(uint32_t index, PictureEntry* out) {
  return orNoMemory(
      "RecordingReader", [&]() -> bool { return impl_ && impl_->picture(index, out); },
      [&]() -> bool {
        impl_->lackMemory();
        return false;
      });
}

int64_t RecordingReader::findKeyPictureBefore(PictureTime time) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> int64_t { return impl_ ? impl_->findKeyPictureBefore(time) : -1; },
      [&]() -> int64_t {
        impl_->lackMemory();
        return -1;
      });
}

int64_t RecordingReader::findPictureFrom(PictureTime time) {
  return orNoMemory(
      "RecordingReader", [&]() -> int64_t { return impl_ ? impl_->findPictureFrom(time) : -1; },
      [&]() -> int64_t {
        impl_->lackMemory();
        return -1;
      });
}

bool RecordingReader::readPicture(const PictureEntry& entry, std::vector<uint8_t>* out,
                                  bool withTimeStamp) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> bool { return impl_ && impl_->readPicture(entry, out, withTimeStamp); },
      [&]() -> bool {
        impl_->lackMemory();
        return false;
      });
}

bool RecordingReader::isDamaged() const { return impl_ && impl_->isDamaged(); }

bool RecordingReader::wasRefused() const {
  return impl_ && (impl_->delivered() == Delivery::kRefused || impl_->lackedMemory());
}

bool RecordingReader::lackedMemory() const { return impl_ && impl_->lackedMemory(); }

bool streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg, std::vector<DB_STREAM>* out) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> bool {
        out->clear();
        CApiDb db;
        DB_STREAM page[kPage];
        StreamPages pages(&db, from, to, inTrg);
        for (;;) {
          const int32_t count = pages.next(page, kPage);
          if (count < 0) return false;
          if (count > 0) out->insert(out->end(), page, page + count);
          if (count < static_cast<int32_t>(kPage)) return leaveOutCopies(&db, out);
        }
      },
      [&]() -> bool { return false; });
}

std::vector<DB_STREAM> streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg) {
  std::vector<DB_STREAM> rows;
  streamsOfPeriod(from, to, inTrg, &rows);
  return rows;
}

bool streamsOfEvent(const DB_EVENT& event, std::vector<DB_STREAM>* out) {
  return orNoMemory(
      "RecordingReader",
      [&]() -> bool {
        const uint32_t from = event.startDate > event.preSec ? event.startDate - event.preSec : 0;
        const uint32_t to = event.endDate != 0 ? event.endDate : 0xFFFFFFFF;
        return streamsOfPeriod(from, to, 0, out);
      },
      [&]() -> bool { return false; });
}

std::vector<DB_STREAM> streamsOfEvent(const DB_EVENT& event) {
  std::vector<DB_STREAM> rows;
  streamsOfEvent(event, &rows);
  return rows;
}

}  // namespace tarn
