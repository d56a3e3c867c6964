// The two copies of both journals, and the rows that they give.
#include <algorithm>
#include <cstring>

#include "dblog/JournalFormat.h"
#include "recorder/CardContents.h"

namespace tarn {
namespace {

constexpr uint32_t kMaxJournalBytes = 12 * 1024 * 1024;  // the rebuild reads no further

class JournalCheck {
 public:
  JournalCheck(CardContents* contents, JournalKind kind)
      : contents_(contents), kind_(kind), traits_(journalTraits(kind)) {}

  void run() {
    const CardFamily& family = contents_->card.family(kFileJournal);
    const auto mirror = static_cast<uint32_t>(traits_.chunk + kJournalMirrorStep);
    if (mirror >= family.chunks) {
      return say(FindingKind::kJournalRecord, "the card has too few journal chunks");
    }
    size_ = std::min(family.chunkSize, kMaxJournalBytes);
    BlockReader original(contents_->card, chunkByte(family, traits_.chunk), size_);
    BlockReader copy(contents_->card, chunkByte(family, traits_.chunk + 1), size_);
    const uint32_t end = size_ - size_ % traits_.recordSize;
    for (uint32_t position = 0; position < end; position += traits_.recordSize) {
      if (!look(position, original.at(position, traits_.recordSize),
                copy.at(position, traits_.recordSize))) {
        break;
      }
      end_ = position + traits_.recordSize;
    }
    reportLost();
    checkFree();
  }

 private:
  static uint64_t chunkByte(const CardFamily& family, int chunk) {
    return family.startByte() + static_cast<uint64_t>(chunk) * family.chunkSize;
  }

  const char* what() const { return kind_ == JournalKind::kEvent ? "event" : "recording"; }
  std::string rowName(const uint8_t* record) const {
    return std::string(what()) + " " + std::to_string(journalKey(record));
  }
  static std::string placeText(uint32_t position) { return " at byte " + std::to_string(position); }

  void say(FindingKind kind, const std::string& text) {
    contents_->findings.add(kind, std::string(what()) + " journal: " + text);
  }
  void say(FindingKind kind, const uint8_t* record, const std::string& text) {
    CardFinding finding;
    finding.kind = kind;
    finding.text = std::string(what()) + " journal: " + text;
    (kind_ == JournalKind::kEvent ? finding.eventID : finding.streamID) = journalKey(record);
    contents_->findings.add(finding);
  }

  bool erased(const uint8_t* record) const {
    return record != nullptr && journalMarker(record) == kMarkerErased;
  }
  bool valid(const uint8_t* record) const {
    return record != nullptr && journalRecordValid(record, traits_.crcLength);
  }

  // False at the journal's end.
  bool look(uint32_t position, const uint8_t* first, const uint8_t* second) {
    const bool firstValid = valid(first);
    const bool secondValid = valid(second);
    if (!firstValid && !secondValid) {
      if (erased(first) && erased(second)) return false;
      if (lost_++ == 0) lostFrom_ = position;
      return true;
    }
    reportLost();
    const uint8_t* record = firstValid ? first : second;
    if (!firstValid || !secondValid) {
      say(FindingKind::kJournalCopy, record,
          std::string(firstValid ? "the second" : "the first") + " copy of the record of " +
              rowName(record) + placeText(position) + " is damaged");
    } else if (memcmp(first, second, traits_.recordSize) != 0) {
      say(FindingKind::kJournalCopy, record,
          "the copies of the record of " + rowName(record) + placeText(position) + " differ");
    }
    take(record, position);
    return true;
  }

  void reportLost() {
    if (lost_ == 0) return;
    const std::string records = std::to_string(lost_) + (lost_ == 1 ? " record" : " records");
    say(FindingKind::kJournalRecord,
        records + placeText(lostFrom_) + " cannot be read in either copy");
    lost_ = 0;
  }

  void take(const uint8_t* record, uint32_t position) {
    if (!journalRecordInPlace(traits_, record, position)) {
      return say(FindingKind::kJournalRecord, record,
                 "the record of " + rowName(record) + placeText(position) +
                     " belongs elsewhere, or is of no known kind");
    }
    const uint32_t key = journalKey(record);
    if (key == 0) return;  // stands for a record that was lost
    if (key > newestKey_) {
      newestKey_ = key;
      newestPlace_ = position;
    }
    if (journalMarker(record) != traits_.liveMarker) return;
    noteOrder(key, position, record);
    if (key > newestLiveKey_) {
      newestLiveKey_ = key;
      newestLivePlace_ = position;
    }
    if (!addRow(record)) {
      say(FindingKind::kJournalOrder, record,
          rowName(record) + " has more than one record, one" + placeText(position));
    }
  }

  // Keys of live records rise along the ring; they fall once, where the newest meets the oldest.
  void noteOrder(uint32_t key, uint32_t position, const uint8_t* record) {
    if (key < before_ && ++falls_ > 1) {
      say(FindingKind::kJournalOrder, record,
          "the record of " + rowName(record) + placeText(position) + " is out of order");
    }
    before_ = key;
  }

  bool addRow(const uint8_t* record) {
    if (kind_ == JournalKind::kEvent) {
      DB_EVENT row = {};
      decodeEventRecord(record, &row);
      return contents_->events.emplace(row.eventID, row).second;
    }
    DB_STREAM row = {};
    decodeStreamRecord(record, &row);
    return contents_->streams.emplace(row.streamID, row).second;
  }

  // The next record must come behind the newest one, whether that is live or deleted by now.
  void checkFree() {
    const CardManagement& management = contents_->card.info().management(kFileJournalManage);
    const auto chunk = static_cast<size_t>(traits_.chunk);
    if (management.records.size() <= chunk + 1) return;
    const uint32_t free = management.records[chunk].streamFreeOffset;
    if (management.records[chunk + 1].streamFreeOffset != free) {
      return say(FindingKind::kJournalOrder, "the free offsets of its two copies differ");
    }
    if (free > end_) {
      return say(FindingKind::kJournalOrder,
                 "it ends" + placeText(end_) + ", and its free offset is " + std::to_string(free));
    }
    const uint32_t size = contents_->card.family(kFileJournal).chunkSize;
    if (newestLiveKey_ != 0 && free == nextJournalPlace(traits_, newestLivePlace_, size)) return;
    if (newestKey_ != 0 && free == nextJournalPlace(traits_, newestPlace_, size)) return;
    if (newestLiveKey_ == 0 && isJournalPlace(traits_, free, size)) return;
    say(FindingKind::kJournalOrder,
        "the free offset " + std::to_string(free) + " is not behind the newest record");
  }

  CardContents* contents_;
  const JournalKind kind_;
  const JournalTraits& traits_;
  uint32_t size_ = 0;
  uint32_t end_ = 0;   // of the records
  uint32_t lost_ = 0;  // places in a row
  uint32_t lostFrom_ = 0;
  uint32_t before_ = 0;
  uint32_t falls_ = 0;
  uint32_t newestKey_ = 0;
  uint32_t newestPlace_ = 0;
  uint32_t newestLiveKey_ = 0;
  uint32_t newestLivePlace_ = 0;
};

}  // namespace

void checkJournals(CardContents* contents) {
  JournalCheck(contents, JournalKind::kEvent).run();
  JournalCheck(contents, JournalKind::kStream).run();
}

}  // namespace tarn
