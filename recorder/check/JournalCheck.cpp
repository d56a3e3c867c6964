// The two copies of both journals, and the rows that they give.
#include <algorithm>
#include <cstring>

#include "dblog/JournalFormat.h"
#include "recorder/check/CardContents.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/JournalCopies.h"

namespace tarn {
namespace {

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
    CardSource original(contents_->card, kFileJournal, static_cast<uint32_t>(traits_.chunk));
    CardSource copy(contents_->card, kFileJournal, mirror);
    JournalCopies copies(kind_, &original, &copy);
    for (uint32_t position = 0; position < copies.size();) {
      if (look(copies, copies.at(position), position)) {
        position += traits_.recordSize;
        end_ = position;
      } else {
        position = passHole(&copies, position);
      }
    }
    reportGap();
    checkFree();
  }

 private:
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

  // False at the journal's end.
  bool look(const JournalCopies& copies, JournalCopy copy, uint32_t position) {
    if (copy == JournalCopy::kErased || copies.endsBesideRefused()) return false;
    if (copy == JournalCopy::kNeither || copy == JournalCopy::kRefused) {
      noteGap(copy == JournalCopy::kRefused, position);
      return true;
    }
    reportGap();
    compare(copies, copy, position);
    take(copies.record(), position);
    return true;
  }

  // The erased pair in front of records hides them from a start, until it is bridged.
  uint32_t passHole(JournalCopies* copies, uint32_t position) {
    const uint32_t next = copies->nextAfterHole(position, savedFree());
    if (next == copies->size()) return next;
    for (; position < next; position += traits_.recordSize) noteGap(false, position);
    return next;
  }

  uint32_t savedFree() const {
    const auto& records = contents_->card.info().management(kFileJournalManage).records;
    const auto chunk = static_cast<size_t>(traits_.chunk);
    return chunk < records.size() ? records[chunk].streamFreeOffset : 0;
  }

  void compare(const JournalCopies& copies, JournalCopy copy, uint32_t position) {
    const uint8_t* record = copies.record();
    const std::string which = copy == JournalCopy::kOriginal ? "the second" : "the first";
    const std::string ofRecord = " copy of the record of " + rowName(record) + placeText(position);
    if (copies.other() == nullptr) {
      return say(FindingKind::kUnreadable, record,
                 which + ofRecord + " was not delivered by the device; the other one is good");
    }
    if (memcmp(record, copies.other(), traits_.recordSize) == 0) return;
    // Of two that are both in their places one is older; all else is damage.
    if (journalRecordInPlace(traits_, copies.other(), position)) {
      return say(
          FindingKind::kJournalCopy, record,
          "the copies of the record of " + rowName(record) + placeText(position) + " differ");
    }
    say(FindingKind::kJournalCopy, record, which + ofRecord + " is damaged");
  }

  // Places in a row that nobody can tell, damaged and refused ones apart.
  void noteGap(bool refused, uint32_t position) {
    if (gap_ > 0 && refused != gapRefused_) reportGap();
    gapRefused_ = refused;
    if (gap_++ == 0) gapFrom_ = position;
  }

  void reportGap() {
    if (gap_ == 0) return;
    const std::string records = std::to_string(gap_) + (gap_ == 1 ? " record" : " records");
    if (gapRefused_) {
      contents_->rowsRefused = contents_->rowsRefused || kind_ == JournalKind::kStream;
      say(FindingKind::kUnreadable, records + placeText(gapFrom_) + " not given by the device");
    } else {
      say(FindingKind::kJournalRecord,
          records + placeText(gapFrom_) + " cannot be read in either copy");
    }
    gap_ = 0;
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
    if (!isOfCopy(record)) noteOrder(key, position, record);
    if (key > newestLiveKey_) {
      newestLiveKey_ = key;
      newestLivePlace_ = position;
    }
    if (!addRow(record)) {
      say(FindingKind::kJournalOrder, record,
          rowName(record) + " has more than one record, one" + placeText(position));
    }
  }

  // The ring passes over it and leaves it among newer ones.
  bool isOfCopy(const uint8_t* record) const {
    if (kind_ != JournalKind::kStream) return false;
    DB_STREAM row = {};
    decodeStreamRecord(record, &row);
    return isKept(row);
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
  uint32_t end_ = 0;  // of the records
  uint32_t gap_ = 0;  // places in a row
  uint32_t gapFrom_ = 0;
  bool gapRefused_ = false;
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
