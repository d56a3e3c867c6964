#include "recorder/recovery/JournalSurvey.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/Crc32.h"
#include "base/Endian.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recovery/PhantomRecords.h"
#include "recorder/rows/JournalCopies.h"
#include "recorder/rows/JournalMessages.h"

namespace tarn {
namespace {

constexpr uint32_t kMendBytes = 4 * 1024;  // read at once around a place that is mended

// Where the journal would go on; 0 when nobody knows.
uint32_t savedFreeOffset(short chunk) {
  CTARNEndlessManagerNative store(kFileJournal);
  CHUNK_USAGE usage = {};
  const bool known =
      store.openManageData(kRecorderPartition) == 0 && store.getUsage(chunk, &usage) == 0;
  return known ? static_cast<uint32_t>(usage.freeAddr) : 0;
}

// Looks one journal through and notes what is wrong with it; then, if wanted, mends that.
class Scrub {
 public:
  Scrub(JournalKind kind, int flags, JournalSurvey* survey, JournalBytes* read = nullptr,
        HeaderPlaces* places = nullptr, EarlyRows* early = nullptr)
      : kind_(kind),
        traits_(journalTraits(kind)),
        original_(kFileJournal, static_cast<uint32_t>(traits_.chunk), flags),
        mirror_(kFileJournal, static_cast<uint32_t>(traits_.chunk + kJournalMirrorStep), flags),
        survey_(survey),
        read_(read),
        places_(places),
        early_(early) {}

  // Nothing is written here.
  bool look();
  // After look(): mend() will write nothing, and all records are kept in `read`.
  bool isFlawless() const;
  void mend();

 private:
  bool open(const ChunkSource& source, int chunk);
  bool lookAt(JournalCopies* copies, uint32_t position);
  uint32_t passHole(JournalCopies* copies, uint32_t position, uint32_t savedFree);
  void refuse(const std::string& place);
  void take(const JournalCopies& copies, JournalCopy copy, uint32_t position);
  bool noteRow(const uint8_t* record);
  void noteKeys(const JournalCopies& copies, uint32_t position);
  void noteUnequal(const JournalCopies& copies, JournalCopy copy, uint32_t position);
  void count(uint32_t savedFree);
  void countMissing(uint32_t savedFree);
  void makeEqual(JournalCopies* copies);
  void bridge();
  void eraseUnfinished(JournalCopies* copies);
  void deletePhantoms();
  void deletePhantomsOf(ChunkSource* source, bool mirror);
  bool inPlace(const uint8_t* record, uint32_t position) const {
    return record != nullptr && journalRecordInPlace(traits_, record, position);
  }
  void put(ChunkSource* source, uint32_t position, const uint8_t* record) {
    if (read_ != nullptr) read_->forget(position);
    if (!source->write(position, record, traits_.recordSize)) ++survey_->refused;
  }
  void flush() {
    if (!original_.flush() || !mirror_.flush()) ++survey_->refused;
  }

  const JournalKind kind_;
  const JournalTraits& traits_;
  ChunkSource original_;
  ChunkSource mirror_;
  JournalSurvey* survey_;
  JournalBytes* read_;    // may be null
  HeaderPlaces* places_;  // may be null
  EarlyRows* early_;      // may be null
  std::vector<LiveRecord> live_;
  std::vector<uint32_t> phantoms_;  // positions, these too:
  std::vector<uint32_t> unequal_;
  std::vector<uint32_t> bridged_;
  std::vector<uint32_t> gap_;   // unreadable since the last valid record
  std::vector<uint32_t> lost_;  // without a record, wherever
  uint32_t lastWhole_ = 0;
  uint32_t hole_ = UINT32_MAX;  // erased from there on
};

bool Scrub::open(const ChunkSource& source, int chunk) {
  if (source.isOpen()) return true;
  char text[sizeof kMsgJournalUnreadable + 16];
  snprintf(text, sizeof text, kMsgJournalUnreadable, chunk);
  syslog(LOG_ERR, "%s", text);
  survey_->error = text;
  return false;
}

bool Scrub::isFlawless() const {
  return survey_->error.empty() && survey_->unread == 0 && unequal_.empty() && gap_.empty() &&
         lost_.empty() && bridged_.empty() && phantoms_.empty();
}

bool Scrub::look() {
  *survey_ = JournalSurvey();
  if (!open(original_, traits_.chunk) || !open(mirror_, traits_.chunk + kJournalMirrorStep)) {
    return false;
  }
  JournalCopies copies(kind_, &original_, &mirror_);
  const uint32_t savedFree = savedFreeOffset(traits_.chunk);
  for (uint32_t position = 0; position < copies.size();) {
    if (early_ != nullptr && position % JournalBytes::kBlockBytes == 0) {
      early_->read(kind_, position);
    }
    if (lookAt(&copies, position)) {
      position += traits_.recordSize;
      continue;
    }
    if (survey_->error.empty()) position = passHole(&copies, position, savedFree);
    if (!survey_->error.empty()) return false;
  }
  count(savedFree);
  countMissing(savedFree);
  if (early_ != nullptr) early_->ended(kind_, survey_->records, isFlawless());
  return true;
}

// Behind the last record only the saved end tells that there were more. What is zeros, which have a
// good checksum, is no record either.
void Scrub::countMissing(uint32_t savedFree) {
  const uint32_t end = std::max(lastWhole_, std::min(savedFree, original_.size()));
  const auto lost = std::lower_bound(lost_.begin(), lost_.end(), end) - lost_.begin();
  survey_->missing = static_cast<uint32_t>(lost);
  if (hole_ < end) survey_->missing += (end - hole_) / traits_.recordSize;
}

// False at the journal's end, and where it cannot be read.
bool Scrub::lookAt(JournalCopies* copies, uint32_t position) {
  const JournalCopy copy = copies->at(position);
  if (copy == JournalCopy::kErased) return false;
  if (copy == JournalCopy::kRefused) {
    if (!copies->endsBesideRefused()) refuse(copies->refusedText());
    return false;
  }
  ++survey_->records;
  if (copy == JournalCopy::kNeither) {
    ++survey_->unreadable;
    gap_.push_back(position);
    lost_.push_back(position);
    return true;
  }
  // A valid record behind what cannot be read: the journal goes on here.
  bridged_.insert(bridged_.end(), gap_.begin(), gap_.end());
  gap_.clear();
  take(*copies, copy, position);
  return true;
}

void Scrub::refuse(const std::string& place) { survey_->error = "the " + place + kErrPlaceRefused; }

// The rebuild ends at the first erased pair: a hole in front of records would hide them all. A
// refused copy of a place in front of records, or of the saved end, may hold one of them.
uint32_t Scrub::passHole(JournalCopies* copies, uint32_t position, uint32_t savedFree) {
  const bool refused = copies->at(position) == JournalCopy::kRefused;
  const std::string refusedPlace = copies->refusedText();
  const uint32_t next = copies->nextAfterHole(position, savedFree);
  if (next == copies->size()) {
    if (refused && position < savedFree) refuse(refusedPlace);
    if (refused && survey_->unread++ == 0) survey_->unreadText = refusedPlace;
    hole_ = position;
    return next;
  }
  for (; position < next; position += traits_.recordSize) {
    if (copies->at(position) == JournalCopy::kRefused) {
      refuse(copies->refusedText());
      return next;
    }
    ++survey_->records;
    ++survey_->unreadable;
    gap_.push_back(position);
    lost_.push_back(position);
  }
  return next;
}

void Scrub::take(const JournalCopies& copies, JournalCopy copy, uint32_t position) {
  noteKeys(copies, position);
  const uint8_t* record = copies.record();
  const bool whole =
      journalMarker(record) == traits_.liveMarker || journalMarker(record) == traits_.deletedMarker;
  if (whole) {
    ++survey_->whole;
    lastWhole_ = position;
  } else {
    lost_.push_back(position);
  }
  if (journalMarker(record) == traits_.liveMarker && copies.isInPlace()) {
    const uint32_t key = journalKey(record);
    if (key == 0) {
      phantoms_.push_back(position);  // key 0 is never given out
    } else {
      live_.push_back({position, key, crc32(record, traits_.recordSize), noteRow(record)});
    }
  }
  if (copies.other() == nullptr) {
    if (survey_->unread++ == 0) survey_->unreadText = copies.refusedText();
  } else if (!copies.areAlike()) {
    noteUnequal(copies, copy, position);
  } else if (read_ != nullptr && copies.isInPlace()) {
    read_->keep(position, record);
  }
}

// Of a recording: whether it is a kept copy.
bool Scrub::noteRow(const uint8_t* record) {
  if (kind_ != JournalKind::kStream) return false;
  DB_STREAM row = {};
  decodeStreamRecord(record, &row);
  if (places_ != nullptr) places_->note(row);
  return isKept(row);
}

void Scrub::noteKeys(const JournalCopies& copies, uint32_t position) {
  uint32_t* greatest = &survey_->greatestKey;
  if (copies.isInPlace()) *greatest = std::max(*greatest, journalKey(copies.record()));
  if (copies.areAlike() || !inPlace(copies.other(), position)) return;
  *greatest = std::max(*greatest, journalKey(copies.other()));
}

void Scrub::noteUnequal(const JournalCopies& copies, JournalCopy copy, uint32_t position) {
  const bool bothValid =
      copy == JournalCopy::kOriginal && journalRecordValid(copies.other(), traits_.crcLength);
  ++(bothValid ? survey_->unlike : survey_->copied);
  unequal_.push_back(position);
}

void Scrub::count(uint32_t savedFree) {
  for (const uint32_t index : findPhantomRecords(live_, savedFree)) {
    phantoms_.push_back(live_[index].position);
    live_[index].key = 0;
  }
  survey_->phantoms = static_cast<uint32_t>(phantoms_.size());
  std::vector<uint32_t> keys;
  keys.reserve(live_.size());
  for (const LiveRecord& record : live_) {
    if (record.key == 0) continue;
    keys.push_back(record.key);
    survey_->digest += record.checksum;
    if (record.key <= survey_->newestKey) continue;
    survey_->newestKey = record.key;
    survey_->newestPlace = record.position;
  }
  survey_->live = static_cast<uint32_t>(keys.size());
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  survey_->liveKeys = static_cast<uint32_t>(keys.size());
}

void Scrub::mend() {
  JournalCopies copies(kind_, &original_, &mirror_, kMendBytes);
  makeEqual(&copies);
  bridge();
  eraseUnfinished(&copies);
  flush();
  deletePhantoms();
}

void Scrub::makeEqual(JournalCopies* copies) {
  for (const uint32_t position : unequal_) {
    const JournalCopy copy = copies->at(position);
    const bool known = copy == JournalCopy::kOriginal || copy == JournalCopy::kMirror;
    if (!known || copies->other() == nullptr) {
      ++survey_->refused;
      continue;
    }
    put(copy == JournalCopy::kOriginal ? &mirror_ : &original_, position, copies->record());
  }
}

// A deleted record of nobody: key 0 is never given out.
void Scrub::bridge() {
  for (const uint32_t position : bridged_) {
    uint8_t record[kStreamRecordSize] = {};
    setJournalMarker(record, traits_.deletedMarker);
    putLe32(record + traits_.backOffsetOff, position);
    sealJournalRecord(record, traits_.crcLength);
    ++survey_->bridged;
    put(&original_, position, record);
    put(&mirror_, position, record);
  }
}

// What lies behind the last record in one copy only was torn before its insert was done: nobody was
// told of it, and the place is free.
void Scrub::eraseUnfinished(JournalCopies* copies) {
  const std::vector<uint8_t> nothing(traits_.recordSize, 0xFF);
  for (const uint32_t position : gap_) {
    if (copies->at(position) != JournalCopy::kNeither) continue;
    const bool inOriginal = journalMarker(copies->original()) != kMarkerErased;
    const bool inMirror = journalMarker(copies->mirror()) != kMarkerErased;
    if (inOriginal == inMirror) continue;
    ++survey_->unfinished;
    put(inOriginal ? &original_ : &mirror_, position, nothing.data());
  }
}

// Both copies are good here, so one is whole on the card before the other is touched.
void Scrub::deletePhantoms() {
  if (phantoms_.empty()) return;
  deletePhantomsOf(&original_, false);
  flush();
  deletePhantomsOf(&mirror_, true);
  flush();
}

void Scrub::deletePhantomsOf(ChunkSource* source, bool mirror) {
  JournalCopies copies(kind_, &original_, &mirror_, kMendBytes);
  for (const uint32_t position : phantoms_) {
    copies.at(position);
    const uint8_t* present = mirror ? copies.mirror() : copies.original();
    if (!inPlace(present, position)) continue;  // refused
    uint8_t record[kStreamRecordSize];
    memcpy(record, present, traits_.recordSize);
    setJournalMarker(record, traits_.deletedMarker);
    sealJournalRecord(record, traits_.crcLength);
    put(source, position, record);
  }
}

}  // namespace

int surveyJournal(JournalKind kind, JournalSurvey* survey) {
  return Scrub(kind, O_RDONLY, survey).look() ? 0 : -1;
}

int scrubJournals(JournalSurvey* events, JournalSurvey* streams,
                  const std::function<bool()>& mayWrite, JournalBytes* readEvents,
                  JournalBytes* readStreams, HeaderPlaces* places, EarlyRows* early) {
  Scrub ofEvents(JournalKind::kEvent, O_RDWR, events, readEvents, nullptr, early);
  Scrub ofStreams(JournalKind::kStream, O_RDWR, streams, readStreams, places, early);
  if (!ofEvents.look() || !ofStreams.look()) return -1;
  if (mayWrite != nullptr && !mayWrite()) return -1;
  ofEvents.mend();
  ofStreams.mend();
  return 0;
}

}  // namespace tarn
