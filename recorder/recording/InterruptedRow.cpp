#include "recorder/recording/InterruptedRow.h"

#include <fcntl.h>

#include <algorithm>
#include <vector>

#include "base/Wrap.h"
#include "db/RowStatus.h"
#include "dblog/CDbRestore.h"
#include "fat/ChunkFiles.h"
#include "recorder/recording/PictureStamp.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

// Entries are looked for behind a hole as far as cards lose bytes at once: 64 KiB.
constexpr uint32_t kWidestHole = 64 * 1024 / kRecordSize;
// A little more than the pictures of one flush, unless a longer interval was set.
constexpr int64_t kFlushMicros = 1500000;

}  // namespace

// Slots without an entry of the recording, in front of one with.
struct InterruptedRow::Hole {
  uint32_t from = 0;
  uint32_t to = 0;
  bool refused = false;  // one of them at least
  PictureTime before;    // when the picture in front of it was decoded
};

bool isVideo(const DB_STREAM& row) { return !isSound(row) && (row.status & kStatusNotVideo) == 0; }

InterruptedRow::InterruptedRow(const DB_STREAM& row)
    : row_(row), index_(row), stream_(kFileStream, row.chunkID, O_RDONLY) {}

Delivery InterruptedRow::at(uint32_t index, PictureEntry* entry) {
  const Delivery got = index_.entry(index, entry);
  const bool other =
      got == Delivery::kGood && entry->number != wrapAdd32(header_.firstNumber, index);
  return other ? Delivery::kBad : got;
}

// A sector that a torn write left out is as it was before: records of others, or a place that was
// never used. So what can be neither was written once, and is damaged. The header is on the card
// before the row is, and chunks are filled from their start: a place in front of a used one was
// used.
bool InterruptedRow::isDamaged(const Hole& hole) {
  if (hole.from == 0 && headerBad_ && !index_.beginsSector(0)) return true;
  const bool cameRound = index_.isForeign(pictures_);
  for (uint32_t i = hole.from; i < hole.to; ++i) {
    if (index_.isMangled(i)) return true;
    if (cameRound && index_.isBlank(i) && index_.liesBefore(i, pictures_)) return true;
  }
  return false;
}

// Entries of the last flush reach the card in any order. Where one is missing among them, none
// behind it had been promised to anybody, and the recording ends in front of it, whole. What was
// there before, a record of another recording, shows that nothing was ever written; else the times
// tell: a hole with more than a flush behind it was no hole once.
bool InterruptedRow::isTorn(const Hole& hole) {
  if (!index_.beginsSector(hole.to)) return false;
  for (uint32_t i = hole.from; i < hole.to; ++i) {
    if (index_.isForeign(i)) return true;
  }
  if (isDamaged(hole)) return false;
  PictureEntry last;
  if (hole.refused || at(pictures_ - 1, &last) != Delivery::kGood) return false;
  return last.decodeTime().totalMicros() - hole.before.totalMicros() <= kFlushMicros;
}

// False when what lies behind the last entry was not delivered: there may be more. Where there is
// none at all, everything that was looked at has to be.
bool InterruptedRow::walk() {
  std::vector<Hole> holes;
  Hole hole;
  hole.before = {row_.startDate, row_.startMSec * 1000u};
  bool endRefused = false;
  pictures_ = 0;
  refused_.clear();
  for (uint32_t i = 0; i < index_.capacity() && i - pictures_ <= kWidestHole; ++i) {
    PictureEntry entry;
    const Delivery got = at(i, &entry);
    if (got == Delivery::kRefused) refused_.push_back(i);
    if (got != Delivery::kGood) {
      if (i == pictures_) endRefused = got == Delivery::kRefused;
      hole.refused = hole.refused || got == Delivery::kRefused;
      continue;
    }
    hole.from = pictures_;
    hole.to = i;
    if (hole.from < hole.to) holes.push_back(hole);
    pictures_ = i + 1;
    hole = Hole();
    hole.before = entry.decodeTime();
    endRefused = false;
  }
  for (const Hole& each : holes) {
    if (!isTorn(each)) continue;
    pictures_ = each.from;
    return true;
  }
  return pictures_ > 0 ? !endRefused : !hole.refused || index_.isForeign(0);
}

// Pictures or sound at the end whose data is not theirs, of a card that lost what it had confirmed.
// Both show their own times.
void InterruptedRow::dropStrayPictures() {
  const auto look = isSound(row_) ? lookAtSound : lookAtPicture;
  PictureEntry entry;
  while (pictures_ > 0) {
    const Delivery got = at(pictures_ - 1, &entry);
    if (got == Delivery::kRefused) return;
    if (got == Delivery::kGood && look(&stream_, entry) != Delivery::kBad) return;
    --pictures_;
  }
}

// False when an entry is refused that was there a moment ago: the sums would lack it.
bool InterruptedRow::total() {
  PictureEntry entry;
  const uint32_t ring = index_.streamSize();
  bool first = true;
  for (uint32_t i = 0; i < pictures_; ++i) {
    const Delivery got = at(i, &entry);
    const bool known = std::binary_search(refused_.begin(), refused_.end(), i);
    if (got == Delivery::kRefused && !known) return false;
    if (got != Delivery::kGood) continue;
    // What a bad first entry does not tell, a good header does.
    if (first && (i == 0 || !headerGood_)) header_.dataOffset = entry.dataOffset;
    first = false;
    if (entry.isKey()) ++gops_;
    if (last_ < entry.presentation) last_ = entry.presentation;
    dataEnd_ = ringAdvance(entry.dataOffset, entry.size, ring);
    header_.dataSize =
        wrapAdd32(ringDistance(header_.dataOffset, entry.dataOffset, ring), entry.size);
  }
  header_.pictures = pictures_;
  header_.gops = gops_;
  header_.lastTime = last_.seconds;
  return true;
}

InterruptedRow::Verdict InterruptedRow::judge() {
  const Delivery header = index_.header(&header_);
  if (header == Delivery::kRefused) return Verdict::kRefused;
  if (index_.isPlaceless()) return Verdict::kNothing;
  if (!stream_.isOpen()) return Verdict::kRefused;
  headerGood_ = header == Delivery::kGood;
  headerBad_ = header == Delivery::kBad;
  bool delivered = !headerGood_ || walk();
  if (delivered && pictures_ == 0) {  // a good header may be the one of another recording
    headerGood_ = false;
    header_ = StreamHeader();
    header_.firstNumber = index_.firstNumber();
    delivered = walk();
  }
  if (!delivered) return Verdict::kRefused;
  if (isVideo(row_) || isSound(row_)) dropStrayPictures();
  if (pictures_ == 0) return Verdict::kNothing;
  return total() ? Verdict::kPictures : Verdict::kRefused;
}

bool InterruptedRow::writeHeader() const {
  uint8_t bytes[kRecordSize];
  encodeStreamHeader(header_, bytes);
  return CDbRestore().writePictureChunk(static_cast<short>(row_.chunkID), row_.chunkOffset, bytes,
                                        kRecordSize) == 0;
}

}  // namespace tarn
