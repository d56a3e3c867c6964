#include "recorder/JournalSurvey.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <vector>

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
  Copy(const JournalTraits& traits, int chunk) : traits_(traits), block_(kBlockSize) {
    char name[kChunkFileNameRoom];
    chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name);
    handle_ = fat_.open(name, O_RDONLY);
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
};

bool erased(const uint8_t* record) {
  return record != nullptr && journalMarker(record) == kMarkerErased;
}

bool valid(const JournalTraits& traits, const uint8_t* record) {
  return record != nullptr && journalRecordValid(record, traits.crcLength);
}

bool count(const JournalTraits& traits, const uint8_t* record, uint32_t position,
           JournalSurvey* survey) {
  if (record == nullptr || !journalRecordInPlace(traits, record, position)) return false;
  survey->greatestKey = std::max(survey->greatestKey, journalKey(record));
  return journalMarker(record) == traits.liveMarker;
}

}  // namespace

int surveyJournal(JournalKind kind, JournalSurvey* survey) {
  const JournalTraits& traits = journalTraits(kind);
  *survey = JournalSurvey();
  Copy original(traits, traits.chunk);
  Copy mirror(traits, traits.chunk + kJournalMirrorStep);
  if (!original.isOpen() || !mirror.isOpen()) return -1;
  const uint32_t end = original.size() - original.size() % traits.recordSize;
  for (uint32_t position = 0; position < end; position += traits.recordSize) {
    const uint8_t* first = original.at(position);
    const uint8_t* second = mirror.at(position);
    const bool firstValid = valid(traits, first);
    if (!firstValid && !valid(traits, second)) {
      if (erased(first) && erased(second)) break;
      ++survey->unreadable;
    }
    ++survey->records;
    const bool firstLive = count(traits, first, position, survey);
    const bool secondLive = count(traits, second, position, survey);
    // The rebuild asks the mirror only where the original is not valid.
    if (firstValid ? firstLive : secondLive) ++survey->live;
  }
  return 0;
}

}  // namespace tarn
