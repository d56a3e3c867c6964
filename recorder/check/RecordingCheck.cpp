// Rows against stream headers, picture entries and the pictures themselves.
#include <algorithm>

#include "base/Wrap.h"
#include "db/RowStatus.h"
#include "recorder/card/TimeText.h"
#include "recorder/check/RowsCheck.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/PictureStamp.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/recovery/NativeRows.h"

namespace tarn {
namespace {

constexpr int kNamedEvents = 8;
// Whole pictures of a long recording take a slow card a while; a stop must not wait for its end.
constexpr uint32_t kPicturesOfAStep = 256;
enum class State { kGood, kBadEntry, kBadData, kUnreadable };

const char* stateText(State state, bool sound) {
  if (state == State::kBadEntry) return "index entries are damaged";
  if (state != State::kBadData) return "bytes cannot be read from the card";
  return sound ? "sound is damaged or overwritten" : "pictures are damaged or overwritten";
}

FindingKind stateKind(State state) {
  if (state == State::kBadEntry) return FindingKind::kEntry;
  return state == State::kBadData ? FindingKind::kData : FindingKind::kUnreadable;
}

// One row.
class RecordingCheck {
 public:
  RecordingCheck(RowsWorker* worker, const DB_STREAM& row, RecordingOutcome* outcome)
      : worker_(*worker),
        contents_(worker->rows->contents()),
        outcome_(outcome),
        card_(contents_.card),
        row_(row),
        sound_(isSound(row)),
        pictures_(card_, kFilePicture, row.chunkID),
        stream_(card_, kFileStream, row.chunkID),
        index_(row, &pictures_, stream_.size()),
        proof_(&stream_) {
    pictures_.sharePatience(&worker->patienceMs);
    stream_.sharePatience(&worker->patienceMs);
  }

  void run() {
    if (isKept(row_) && !isWholeCopy(row_)) return sayHalfCopy();
    if (!checkRow()) return;
    if (row_.recSize == 0) {
      return say(FindingKind::kOpenRow, "it was never closed", row_.startDate, row_.startDate);
    }
    correction_ = rowCorrection(row_, &index_);
    readHeader();
    checkEntries();
    if (headerGood_) compareHeader();
  }

 private:
  void say(FindingKind kind, const std::string& text) {
    say(kind, text, row_.startDate, row_.endDate);
  }
  void say(FindingKind kind, const std::string& text, uint32_t from, uint32_t to) {
    say(CardFinding(), kind, text, from, to);
  }
  void say(CardFinding finding, FindingKind kind, const std::string& text, uint32_t from,
           uint32_t to) {
    finding.channel = channel();
    finding.kind = kind;
    finding.text = nameOf(row_) + ": " + text;
    finding.streamID = row_.streamID;
    finding.chunk = static_cast<int32_t>(row_.chunkID & 0xFFFF);
    finding.from = from;
    finding.to = to;
    if (!worker_.rows->isFull(kind) && !outcome_->findings.isFull(kind)) nameEvents(&finding);
    outcome_->findings.add(finding);
  }

  void sayHalfCopy() {
    CardFinding finding;
    finding.consequence = Consequence::kNone;
    finding.meaning = "nothing is lost: the next start drops it";
    say(finding, FindingKind::kOpenRow, "it is a copy that was not finished", row_.startDate,
        row_.startDate);
  }

  // Of the chunk, which belongs to one.
  int32_t channel() const {
    if (isKept(row_)) return keptChannel(row_);
    const auto& records = card_.info().management(kFileStreamManage).records;
    return row_.chunkID < records.size() ? records[row_.chunkID].chType : -1;
  }

  // What it means that this much video from there on is concerned so.
  CardFinding meaning(Consequence consequence, int64_t from, int64_t to) const {
    CardFinding finding;
    finding.consequence = consequence;
    finding.videoMicros = std::max<int64_t>(to - from, 1);
    finding.isSound = sound_;
    const std::string camera =
        std::string(isKept(row_) ? "a kept copy of " : "") +
        (channel() < 0 ? (sound_ ? "" : "video") : "camera " + std::to_string(channel())) +
        (sound_ ? (channel() < 0 ? "sound" : "'s sound") : "");
    const char* what = consequence == Consequence::kDamaged ? " are damaged"
                       : consequence == Consequence::kLost  ? " are lost"
                                                            : " were not delivered by the card";
    finding.meaning = videoText(finding.videoMicros) + " of " + camera + " at " +
                      TimeText::of(static_cast<uint32_t>(from / 1000000)) + what;
    return finding;
  }
  int64_t rowStart() const { return micros(row_.startDate, row_.startMSec); }
  int64_t rowEnd() const { return micros(row_.endDate, row_.endMSec); }
  static int64_t micros(uint32_t seconds, uint32_t milliseconds) {
    return int64_t{seconds} * 1000000 + int64_t{milliseconds} * 1000;
  }

  // Nothing leads to any of its pictures.
  bool lost(const std::string& text) {
    outcome_->leadsNowhere = true;
    say(meaning(Consequence::kLost, rowStart(), rowEnd()), FindingKind::kRow, text, row_.startDate,
        row_.endDate);
    return false;
  }

  // The first events that show what is concerned.
  void nameEvents(CardFinding* finding) const {
    std::string names;
    int named = 0;
    for (const auto& [key, event] : contents_.events) {
      const uint32_t end = event.endDate != 0 ? event.endDate : UINT32_MAX;
      const uint32_t begin = event.startDate - std::min<uint32_t>(event.startDate, event.preSec);
      if (begin > finding->to || end < finding->from) continue;
      if (finding->eventID == 0) finding->eventID = key;
      if (++named > kNamedEvents) {
        names += " and others";
        break;
      }
      names += (names.empty() ? "; affects event " : ", ") + std::to_string(key);
    }
    finding->text += names;
  }

  // Values that the rest relies on.
  bool checkRow() {
    const CardFamily& pictures = card_.family(kFilePicture);
    const CardFamily& streams = card_.family(kFileStream);
    if (row_.chunkID >= pictures.chunks || row_.chunkID >= streams.chunks) {
      return lost("the card has no chunk " + std::to_string(row_.chunkID));
    }
    const bool place = row_.chunkOffset % kRecordSize == 0 &&
                       row_.chunkOffset < pictures.chunkSize &&
                       row_.recSize < pictures.chunkSize / kRecordSize;
    if (!place) {
      return lost("its place in chunk " + std::to_string(row_.chunkID) + " does not exist");
    }
    if (row_.recSize == 0) return true;
    if (row_.chunkSize != (row_.recSize + 1) * kRecordSize) {
      say(FindingKind::kRow, "its size in the picture chunk is not that of " +
                                 std::to_string(row_.recSize) + (sound_ ? " blocks" : " pictures"));
    }
    if (row_.endDate < row_.startDate) say(FindingKind::kRow, "it ends before it begins");
    return true;
  }

  void readHeader() {
    const Delivery got = index_.header(&header_);
    headerGood_ = got == Delivery::kGood;
    if (got == Delivery::kRefused) {
      return say(FindingKind::kUnreadable, "its stream header cannot be read");
    }
    if (!headerGood_) say(FindingKind::kHeader, "its stream header is damaged");
  }

  void checkEntries() {
    lastGood_ = row_.startDate;
    lastGoodMicros_ = rowStart();
    bool any = row_.recSize == 0;
    for (uint32_t index = 0; index < row_.recSize; ++index) {
      if (index % kPicturesOfAStep == kPicturesOfAStep - 1 && !worker_.rows->goOn(worker_)) return;
      PictureEntry entry;
      const State state = look(index, &entry);
      ++outcome_->pictures;
      any = any || (state != State::kBadEntry);
      const int64_t at = entry.presentation.totalMicros() + correction_ * 1000000;
      if (state == State::kGood) {
        lastGood_ = endRun(index, static_cast<uint32_t>(at / 1000000), at);
        lastGoodMicros_ = std::max(lastGoodMicros_, at);
      } else if (state != runState_) {
        const int64_t from = state == State::kBadData ? at : lastGoodMicros_;
        endRun(index, lastGood_, from);
        runState_ = state;
        runMicros_ = from;
        runFrom_ = index;
      }
    }
    endRun(row_.recSize, row_.endDate, rowEnd());
    if (!any) outcome_->leadsNowhere = true;
  }

  State look(uint32_t index, PictureEntry* entry) {
    const Delivery got = index_.entry(index, entry);
    if (got == Delivery::kRefused) return lose(State::kUnreadable);
    const bool good = got == Delivery::kGood && follows(index, *entry);
    if (!good) return lose(State::kBadEntry);
    if (!hasFirst_) {
      hasFirst_ = true;
      firstNumber_ = wrapSub32(entry->number, index);
      firstOffset_ = entry->dataOffset;
    }
    next_ = ringAdvance(entry->dataOffset, entry->size, stream_.size());
    nextKnown_ = true;
    dataSize_ = wrapAdd32(dataSize_, entry->size);
    if (entry->isKey()) ++gops_;
    return lookAtData(*entry);
  }

  State lose(State state) {
    whole_ = false;
    nextKnown_ = false;
    return state;
  }

  // Numbers are consecutive and the data of pictures lies back to back.
  bool follows(uint32_t index, const PictureEntry& entry) const {
    const bool number = !hasFirst_ || entry.number == wrapAdd32(firstNumber_, index);
    return number && (!nextKnown_ || entry.dataOffset == next_);
  }

  // A copy of a recording that was re-dated has its row's times in the entries, and in the pictures
  // those of the clock before: there the checksum alone tells.
  PictureStamp stampOf(const PictureEntry& entry) const {
    if (isKept(row_) && entry.checksum != 0) return PictureStamp::kNone;
    return sound_ ? PictureStamp::kSound : PictureStamp::kPicture;
  }

  State lookAtData(const PictureEntry& entry) {
    const PictureStamp stamp = stampOf(entry);
    const Delivery got =
        contents_.wholePictures ? proof_.prove(entry, stamp) : proof_.look(entry, stamp);
    if (got == Delivery::kRefused) return State::kUnreadable;
    return got == Delivery::kGood ? State::kGood : State::kBadData;
  }

  // Pictures from runFrom_ to in front of `index` have the same thing wrong with them.
  uint32_t endRun(uint32_t index, uint32_t until, int64_t untilMicros) {
    if (runState_ == State::kGood) return until;
    const uint32_t to = std::max(lastGood_, until);
    const std::string one = sound_ ? "block of sound " : "picture ";
    const std::string more = sound_ ? "blocks of sound " : "pictures ";
    const std::string pictures = index - runFrom_ == 1 ? one + std::to_string(runFrom_ + 1)
                                                       : more + std::to_string(runFrom_ + 1) +
                                                             " to " + std::to_string(index);
    const Consequence consequence = runState_ == State::kBadEntry  ? Consequence::kLost
                                    : runState_ == State::kBadData ? Consequence::kDamaged
                                                                   : Consequence::kUnread;
    say(meaning(consequence, runMicros_, untilMicros), stateKind(runState_),
        pictures + " of " + std::to_string(row_.recSize) + ", between " + TimeText::of(lastGood_) +
            " and " + TimeText::of(to) + ": " + stateText(runState_, sound_),
        lastGood_, to);
    runState_ = State::kGood;
    return until;
  }

  // The library's repair of an interrupted recording keeps the number that it finds, where it is
  // not 0; ours counts, and none is right where the recording began within a group and ended in it.
  bool gopsOfRepair() const {
    return (row_.status & kStatusRepaired) != 0 && header_.gops > 0 && gops_ > 0;
  }

  void compareHeader() {
    std::string what;
    const auto compare = [&what](bool same, const char* name) {
      if (!same) what += (what.empty() ? "" : ", ") + std::string(name);
    };
    compare(header_.pictures == row_.recSize, "number of pictures");
    compare(header_.lastTime + correction_ == row_.endDate, "time of the last picture");
    if (hasFirst_) compare(header_.firstNumber == firstNumber_, "first picture number");
    if (whole_) {
      compare(header_.dataOffset == firstOffset_, "place of the data");
      compare(header_.dataSize == dataSize_, "size of the data");
      compare(header_.gops == gops_ || gopsOfRepair(), "number of key pictures");
    }
    if (!what.empty()) say(FindingKind::kHeader, "its stream header disagrees: " + what);
  }

  const RowsWorker& worker_;
  const CardContents& contents_;
  RecordingOutcome* outcome_;
  const CardReader& card_;
  const DB_STREAM row_;
  const bool sound_;
  CardSource pictures_;
  CardSource stream_;
  RecordingIndex index_;
  PictureProof proof_;
  int64_t correction_ = 0;  // seconds, of a row that was re-dated
  StreamHeader header_;
  bool headerGood_ = false;
  bool hasFirst_ = false;
  bool whole_ = true;  // every entry so far is good
  uint32_t firstNumber_ = 0;
  uint32_t firstOffset_ = 0;
  uint32_t next_ = 0;  // where the next picture's data begins
  bool nextKnown_ = false;
  uint32_t dataSize_ = 0;
  uint32_t gops_ = 0;
  uint32_t lastGood_ = 0;  // seconds of the last good picture
  int64_t lastGoodMicros_ = 0;
  int64_t runMicros_ = 0;  // where the video concerned begins
  State runState_ = State::kGood;
  uint32_t runFrom_ = 0;
};

void checkEvent(CardContents* contents, const DB_EVENT& event) {
  CardFinding finding;
  finding.eventID = event.eventID;
  finding.from = event.startDate;
  finding.to = std::max(event.startDate, event.endDate);
  if (event.endDate == 0) {
    finding.kind = FindingKind::kOpenRow;
    finding.text = nameOf(event) + ": it was never ended";
  } else if (event.endDate < event.startDate) {
    finding.kind = FindingKind::kRow;
    finding.text = nameOf(event) + ": it ends before it begins";
  } else {
    return;
  }
  contents->findings.add(finding);
}

// Rows in the order of their begin, each with the latest end so far: a card holds very many.
void findEventsWithoutVideo(CardContents* contents) {
  std::vector<std::pair<uint32_t, uint32_t>> rows;
  for (const auto& [key, row] : contents->streams) {
    if (contents->lostStreams.count(key) != 0 || isSound(row)) continue;
    rows.emplace_back(row.startDate, row.recSize == 0 ? UINT32_MAX : row.endDate);
  }
  std::sort(rows.begin(), rows.end());
  uint32_t latest = 0;
  for (auto& row : rows) latest = row.second = std::max(latest, row.second);
  for (const auto& [key, event] : contents->events) {
    const uint32_t end = event.endDate != 0 ? event.endDate : UINT32_MAX;
    const uint32_t begin = event.startDate - std::min<uint32_t>(event.startDate, event.preSec);
    const auto behind = std::upper_bound(rows.begin(), rows.end(), std::make_pair(end, UINT32_MAX));
    if (behind == rows.begin() || (behind - 1)->second < begin) {
      contents->eventsWithoutVideo.push_back(key);
    }
  }
}

}  // namespace

void checkRecording(RowsWorker* worker, const DB_STREAM& row, RecordingOutcome* outcome) {
  RecordingCheck(worker, row, outcome).run();
}

bool checkRecordings(CardContents* contents) {
  if (!checkRows(contents)) return false;
  for (const auto& [key, event] : contents->events) checkEvent(contents, event);
  if (!contents->rowsRefused) findEventsWithoutVideo(contents);
  return true;
}

}  // namespace tarn
