#include "recorder/JournalSurvey.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "recorder/JournalMessages.h"

namespace tarn {
namespace {

constexpr uint32_t kBlockSize = 64 * 1024;

// One copy, read in blocks; places of a block that the device does not deliver whole are read
// alone.
class Copy {
 public:
  Copy(const JournalTraits& traits, int chunk, int flags) : traits_(traits), block_(kBlockSize) {
    char name[kChunkFileNameRoom];
    chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name);
    handle_ = fat_.open(name, flags);
    if (handle_ != -1) size_ = low32(fat_.getChunkSize(handle_));
    if (handle_ == -1) syslog(LOG_ERR, kMsgJournalUnreadable, chunk);
  }

  bool isOpen() const { return handle_ != -1; }
  uint32_t size() const { return size_; }

  // The record at a place of a journal; null when the device does not give it.
  const uint8_t* at(uint32_t position) {
    if (position < start_ || position - start_ >= length_) load(position);
    uint8_t* place = block_.data() + (position - start_);
    return good_ || readAt(position, place, traits_.recordSize) ? place : nullptr;
  }

  // Records are written behind or at the place that was read last, so the block stays as it is.
  bool put(uint32_t position, const uint8_t* record) {
    written_ = true;
    return fat_.lseek(handle_, static_cast<long>(position), SEEK_SET) >= 0 &&
           fat_.write(handle_, record, traits_.recordSize) == static_cast<long>(traits_.recordSize);
  }
  bool flush() { return !written_ || fat_.fsync(handle_) == 0; }

 private:
  void load(uint32_t position) {
    start_ = position;
    length_ = std::min(kBlockSize, size_ - position);
    good_ = readAt(position, block_.data(), length_);
  }

  bool readAt(uint32_t position, void* out, uint32_t length) {
    return fat_.lseek(handle_, static_cast<long>(position), SEEK_SET) >= 0 &&
           fat_.read(handle_, out, length) == static_cast<long>(length);
  }

  const JournalTraits& traits_;
  CFATAccess fat_;
  int handle_ = -1;
  uint32_t size_ = 0;
  std::vector<uint8_t> block_;
  uint32_t start_ = 0;
  uint32_t length_ = 0;
  bool good_ = false;
  bool written_ = false;
};

bool erased(const uint8_t* record) {
  return record != nullptr && journalMarker(record) == kMarkerErased;
}

bool valid(const JournalTraits& traits, const uint8_t* record) {
  return record != nullptr && journalRecordValid(record, traits.crcLength);
}

// One pass over both copies.
class Pass {
 public:
  Pass(JournalKind kind, bool repair, JournalSurvey* survey)
      : traits_(journalTraits(kind)),
        repair_(repair),
        original_(traits_, traits_.chunk, repair ? O_RDWR : O_RDONLY),
        mirror_(traits_, traits_.chunk + kJournalMirrorStep, repair ? O_RDWR : O_RDONLY),
        survey_(survey) {}

  int run() {
    *survey_ = JournalSurvey();
    if (!original_.isOpen() || !mirror_.isOpen()) return -1;
    const uint32_t end = original_.size() - original_.size() % traits_.recordSize;
    for (uint32_t position = 0; position < end && look(position);) position += traits_.recordSize;
    std::sort(keys_.begin(), keys_.end());
    keys_.erase(std::unique(keys_.begin(), keys_.end()), keys_.end());
    survey_->liveKeys = static_cast<uint32_t>(keys_.size());
    if (repair_) eraseUnfinished();
    if (!original_.flush() || !mirror_.flush()) ++survey_->refused;
    return 0;
  }

 private:
  // False at the journal's end.
  bool look(uint32_t position) {
    const uint8_t* first = original_.at(position);
    const uint8_t* second = mirror_.at(position);
    const bool secondValid = valid(traits_, second);
    // A sector that the card lost as zeros has the checksum of zeros. It is worth less than a copy
    // that says what it is and lies where it says; the rebuild sees what the repair makes of it.
    const bool lost = repair_ && !inPlace(first, position) && inPlace(second, position);
    const bool firstValid = valid(traits_, first) && !lost;
    ++survey_->records;
    if (!firstValid && !secondValid) {
      if (erased(first) && erased(second)) {
        --survey_->records;
        return false;
      }
      ++survey_->unreadable;
      gap_.push_back(position);
      return true;
    }
    noteKey(first, position);
    noteKey(second, position);
    // The rebuild asks the mirror only where the original is not valid.
    const uint8_t* taken = firstValid ? first : second;
    if (journalMarker(taken) == traits_.liveMarker &&
        journalBackOffset(traits_, taken) == position) {
      ++survey_->live;
      keys_.push_back(journalKey(taken));
    }
    if (repair_) repair(position, first, firstValid, second, secondValid);
    return true;
  }

  bool inPlace(const uint8_t* record, uint32_t position) const {
    return record != nullptr && journalRecordInPlace(traits_, record, position);
  }

  void noteKey(const uint8_t* record, uint32_t position) {
    if (!inPlace(record, position)) return;
    survey_->greatestKey = std::max(survey_->greatestKey, journalKey(record));
  }

  void repair(uint32_t position, const uint8_t* first, bool firstValid, const uint8_t* second,
              bool secondValid) {
    bridgeGap();
    if (!firstValid) {
      ++survey_->copied;
      put(&original_, position, second);
    } else if (!secondValid) {
      ++survey_->copied;
      put(&mirror_, position, first);
    } else if (memcmp(first, second, traits_.recordSize) != 0) {
      ++survey_->unlike;
      put(&mirror_, position, first);
    }
  }

  // A deleted record of nobody: key 0 is never given out.
  void bridgeGap() {
    for (const uint32_t position : gap_) {
      uint8_t record[kStreamRecordSize] = {};
      setJournalMarker(record, traits_.deletedMarker);
      putLe32(record + traits_.backOffsetOff, position);
      sealJournalRecord(record, traits_.crcLength);
      ++survey_->bridged;
      put(&original_, position, record);
      put(&mirror_, position, record);
    }
    gap_.clear();
  }

  // What lies behind the last record in one copy only was torn before its insert was done: nobody
  // was told of it, and the place is free.
  void eraseUnfinished() {
    const std::vector<uint8_t> nothing(traits_.recordSize, 0xFF);
    for (const uint32_t position : gap_) {
      const bool inOriginal = !erased(original_.at(position));
      const bool inMirror = !erased(mirror_.at(position));
      if (inOriginal == inMirror) continue;
      ++survey_->unfinished;
      put(inOriginal ? &original_ : &mirror_, position, nothing.data());
    }
  }

  void put(Copy* copy, uint32_t position, const uint8_t* record) {
    if (!copy->put(position, record)) ++survey_->refused;
  }

  const JournalTraits& traits_;
  const bool repair_;
  Copy original_;
  Copy mirror_;
  JournalSurvey* survey_;
  std::vector<uint32_t> keys_;  // of live records
  std::vector<uint32_t> gap_;   // unreadable places since the last valid record
};

}  // namespace

int surveyJournal(JournalKind kind, JournalSurvey* survey) {
  return Pass(kind, false, survey).run();
}

int scrubJournal(JournalKind kind, JournalSurvey* survey) { return Pass(kind, true, survey).run(); }

}  // namespace tarn
