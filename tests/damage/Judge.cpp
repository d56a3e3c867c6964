#include "damage/Judge.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "fat/ChunkFiles.h"
#include "powercut/Checks.h"
#include "powercut/ReadFaults.h"
#include "recorder/card/CardRepair.h"

using namespace powercut;

namespace damage {
namespace {

constexpr uint32_t kLeastPictures = 2;  // of an interrupted recording
constexpr char kUndoFile[] = "/tmp/damage.undo";

std::string text(const DB_STREAM& row) {
  return "recording " + std::to_string(row.streamID) + " (" + std::to_string(row.recSize) +
         " pictures at " + std::to_string(row.chunkOffset) + " of index " +
         std::to_string(row.chunkID) + ")";
}

// The first line of one that the other lacks.
std::string firstOther(const std::string& one, const std::string& other) {
  for (size_t start = 0; start < one.size();) {
    const size_t end = std::min(one.find('\n', start), one.size());
    const std::string line = one.substr(start, end - start);
    start = end + 1;
    if (("\n" + other).find("\n" + line + "\n") == std::string::npos) return "{" + line + "}";
  }
  return "nothing";
}

std::vector<uint8_t> damagedBytes(const Case& one, const std::vector<uint8_t>& good) {
  std::vector<uint8_t> bytes = good;
  if (one.isBit()) bytes[0] = static_cast<uint8_t>(bytes[0] ^ (1u << (one.kind - Case::kBit)));
  if (one.kind == Case::kZero) std::fill(bytes.begin(), bytes.end(), 0);
  if (one.kind == Case::kErased) std::fill(bytes.begin(), bytes.end(), 0xFF);
  if (one.kind != Case::kRandom) return bytes;
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<uint8_t>(mix(one.byte * 7919 + one.region * 104729 + i + 1));
  return bytes;
}

}  // namespace

const Whole& Judge::wholeOf(const Case& one) const {
  const bool image = strcmp(regions_[one.region].name, "image") == 0;
  return image ? card_.stopped : card_.cut;
}

bool Judge::isGateRegion() const {
  const std::string name = regions_[case_.region].name;
  return name == "boot" || name == "fat" || name == "directory" || name == "info";
}

void Judge::applyDamage() {
  present_ = true;
  if (case_.kind == Case::kRefused) {
    fault_ = {ReadFault::kSector, 0, from_ / kSector};
    Card::get().refuse(&fault_);
    return;
  }
  const auto at = whole_->card.begin() + static_cast<std::ptrdiff_t>(from_);
  const std::vector<uint8_t> good(at, at + static_cast<std::ptrdiff_t>(to_ - from_));
  const std::vector<uint8_t> bytes = damagedBytes(case_, good);
  Card::get().put(from_, bytes.data(), bytes.size());
}

void Judge::undoDamage() {
  present_ = false;
  Card::get().refuse(nullptr);
  if (case_.kind != Case::kRefused)
    Card::get().put(from_, whole_->card.data() + from_, static_cast<size_t>(to_ - from_));
}

Seen Judge::start(Starts::Again again) {
  const bool refuses = present_ && case_.kind == Case::kRefused;
  return starts_.start(refuses ? &fault_ : nullptr, again);
}

// A recording's header (index -1), or a picture's entry or data.
void Judge::findTouched() {
  touched_.clear();
  for (const PicturePlace& place : whole_->places) {
    const bool touched = std::any_of(
        place.bytes.begin(), place.bytes.end(),
        [this](const auto& piece) { return piece.first < to_ && piece.second > from_; });
    if (touched) touched_.emplace(place.streamID, place.index);
  }
}

bool Judge::touchesRow(uint32_t key) const {
  const auto first = touched_.lower_bound({key, INT64_MIN});
  return first != touched_.end() && first->first == key;
}

bool Judge::touchesOpenRow() const {
  return std::any_of(card_.openStreams.begin(), card_.openStreams.end(),
                     [this](uint32_t key) { return touchesRow(key); });
}

// Every picture but those that have something in the damaged place, with its own bytes and time;
// and of those none with other bytes. With the damage undone every one that its row has.
std::string Judge::checkPictures(const DB_STREAM& row, const DB_STREAM& now) {
  const bool headerOnly = present_ && touches(row.streamID, -1);
  const std::vector<PictureFound> found = starts_.pictures(now, row.recSize);
  if (found.empty()) {
    lost_ = true;
    return headerOnly && touches(row.streamID, 0) ? "" : text(row) + " cannot be opened";
  }
  for (uint32_t i = 0; i < row.recSize; ++i) {
    if (found[i] == PictureFound::kGood) continue;
    const bool touched = touches(row.streamID, i);
    const bool mayBeLost = touched && (present_ || card_.openStreams.count(row.streamID) != 0);
    const std::string which = "picture " + std::to_string(i) + " of " + text(row);
    const bool none = found[i] == PictureFound::kNone;
    if (!mayBeLost) return which + (none ? " is lost" : " is not what was recorded");
    lost_ = true;
    if (found[i] == PictureFound::kUntold)
      unseen_ = "damaged " + which + " is given out as if it were good";
  }
  return "";
}

std::string Judge::checkStream(const DB_STREAM& row, const DB_STREAM* now) {
  const uint32_t key = row.streamID;
  const bool interrupted = card_.openStreams.count(key) != 0 && touchesRow(key);
  if (now == nullptr) {
    uint32_t left = 0;
    for (uint32_t i = 0; i < row.recSize; ++i) left += touches(key, i) ? 0 : 1;
    lost_ = true;
    const bool all = touchesRow(key) && (left == 0 || (interrupted && left < kLeastPictures));
    return all && (present_ || interrupted) ? "" : "gone: " + text(row);
  }
  if (memcmp(now, &row, sizeof row) != 0) {
    if (!interrupted) return text(row) + " has become another: " + text(*now);
    lost_ = true;
    // Left for a start that can read it.
    if (now->recSize == 0 && present_ && case_.kind == Case::kRefused) return "";
  }
  return checkPictures(row, *now);
}

std::string Judge::checkStreams(const Seen& seen) {
  std::map<uint32_t, const DB_STREAM*> rows;
  for (const DB_STREAM& row : seen.streams) rows[row.streamID] = &row;
  for (const DB_STREAM& row : whole_->streams) {
    const auto found = rows.find(row.streamID);
    const std::string failure = checkStream(row, found == rows.end() ? nullptr : found->second);
    if (!failure.empty()) return failure;
    rows.erase(row.streamID);
  }
  return rows.empty() ? "" : "nobody recorded " + text(*rows.begin()->second);
}

std::string Judge::checkEvents(const Seen& seen) {
  std::map<uint32_t, const DB_EVENT*> rows;
  for (const DB_EVENT& row : seen.events) rows[row.eventID] = &row;
  for (const DB_EVENT& row : whole_->events) {
    const auto found = rows.find(row.eventID);
    const bool interrupted = card_.openEvents.count(row.eventID) != 0 && touchesOpenRow();
    const std::string name = "event " + std::to_string(row.eventID);
    // Its pictures may be what is damaged.
    const bool rowGone = seen.streams.size() < whole_->streams.size();
    if (found == rows.end() && !(interrupted && rowGone)) return "gone: " + name;
    if (found == rows.end()) continue;
    if (memcmp(found->second, &row, sizeof row) != 0 && !interrupted) return name + " has changed";
    rows.erase(row.eventID);
  }
  return rows.empty() ? "" : "nobody recorded event " + std::to_string(rows.begin()->first);
}

// Bytes of the log outside the damage stay, and it goes no less far than its last whole sector.
std::string Judge::checkLogChunk(size_t chunk, uint32_t end) const {
  const tarn::CardFamily& family = cardLayout().family(tarn::kFileSyslog);
  const uint64_t start = chunk * family.chunkSize;
  const uint8_t* now = Card::get().bytes() + family.startByte() + start;
  const uint8_t* good = whole_->logs.data() + start;
  const uint32_t length = whole_->logEnds[chunk];
  if (end >= length && memcmp(now, good, length) == 0) return "";
  for (uint32_t i = 0; i < length; ++i) {
    const uint64_t byte = family.startByte() + start + i;
    const bool damaged = present_ && byte >= from_ && byte < to_;
    if (damaged) continue;
    if (now[i] != good[i])
      return "text of the system log changed in chunk " + std::to_string(chunk);
    if (i >= end)
      return "the system log's chunk " + std::to_string(chunk) + " ends at " + std::to_string(end) +
             " instead of " + std::to_string(length);
  }
  return "";
}

std::string Judge::checkLog(const Seen& seen) const {
  if (seen.logEnds.size() != whole_->logEnds.size()) return "the system log has no management data";
  std::string failure;
  for (size_t chunk = 0; chunk < seen.logEnds.size() && failure.empty(); ++chunk)
    failure = checkLogChunk(chunk, seen.logEnds[chunk]);
  return failure;
}

// The ring addresses of a chunk may pass over what is damaged in its oldest and newest recording,
// but nothing else that is listed lies outside them: it would be written over.
std::string Judge::checkSpace(const Seen& seen) const {
  std::map<uint32_t, uint32_t> chunkOfKey;
  for (const DB_STREAM& row : seen.streams) {
    if (row.recSize != 0) chunkOfKey[row.streamID] = row.chunkID;
  }
  for (const PicturePlace& place : whole_->places) {
    const auto row = chunkOfKey.find(place.streamID);
    if (row == chunkOfKey.end() || place.index < 0 || touches(place.streamID, place.index))
      continue;
    const CHUNK_MANAGE& chunk = seen.chunks.at(row->second);
    const tarn::CardFamily& family = cardLayout().family(tarn::kFileStream);
    const uint64_t start = cardLayout().chunkByte(tarn::kFileStream, row->second);
    for (const auto& [from, to] : place.bytes) {
      if (from < start || from >= start + family.chunkSize) continue;  // its entry
      const uint64_t ring = family.chunkSize;
      const uint64_t used = (chunk.streamFreeOffset + ring - chunk.streamUseOffset) % ring;
      const uint64_t first = (from - start + ring - chunk.streamUseOffset) % ring;
      if (first + (to - from) <= used) continue;
      return "picture " + std::to_string(place.index) + " of recording " +
             std::to_string(place.streamID) + " lies in space that counts as free";
    }
  }
  return "";
}

std::string Judge::checkSame(const Seen& seen) {
  const std::string failure = checkSpace(seen);
  if (!failure.empty()) return failure;
  const bool index = strcmp(regions_[case_.region].name, "index") == 0;
  const bool data = strcmp(regions_[case_.region].name, "stream") == 0;
  if ((index && present_ && lost_) || touchesOpenRow() || (data && lost_)) return "";
  if (seen.management == whole_->management) return "";
  return "there is " + firstOther(seen.management, whole_->management) + " instead of " +
         firstOther(whole_->management, seen.management);
}

std::string Judge::checkSeen(const Seen& seen) {
  std::string failure = checkStreams(seen);
  if (failure.empty()) failure = checkEvents(seen);
  if (failure.empty()) failure = checkSame(seen);
  if (failure.empty()) failure = checkLog(seen);
  return failure;
}

// Nothing is still lost, but for what an interrupted recording had in the place.
std::string Judge::checkUndone() {
  undoDamage();
  const bool lost = lost_;
  const Seen seen = start(Starts::Again::kLikely);
  std::string failure = seen.error.empty() ? checkSeen(seen) : "no start: " + seen.error;
  // What the device refused was never gone.
  const bool same = seen.management == whole_->management;
  if (failure.empty() && case_.kind == Case::kRefused && !same)
    failure = "there is " + firstOther(seen.management, whole_->management);
  lost_ = lost;
  return failure.empty() ? "" : "after the damage was undone: " + failure;
}

// What leads to the chunks can be mended by hand.
std::string Judge::tryMending() {
  tarn::CardRepair repair;
  std::string error;
  unlink(kUndoFile);
  if (repair.plan(kCardPath, &error) != 0) return "cannot be mended: " + error;
  if (repair.steps().empty()) return "refused, and there is nothing to mend";
  if (repair.apply(kUndoFile, &error) != 0) return "is not mended: " + error;
  Card::get().takeStray();  // outside the chunks, as is its job
  const Seen seen = start(Starts::Again::kLikely);
  if (!seen.error.empty()) return "mended, and does not start: " + seen.error;
  present_ = false;
  const std::string failure = checkSeen(seen);
  return failure.empty() ? "" : "mended: " + failure;
}

Outcome Judge::tryRefused(const std::string& error, std::string* reason) {
  Card& card = Card::get();
  *reason = error;
  const bool overwritten = case_.kind != Case::kRefused;
  if (overwritten && !isGateRegion()) {
    *reason = "does not start: " + error;
    return Outcome::kFailed;
  }
  std::string failure;
  if (overwritten) {
    const size_t moment = card.moment();
    failure = tryMending();
    card.rollBack(moment);
  }
  if (failure.empty()) failure = checkUndone();
  if (failure.empty()) return Outcome::kRefused;
  *reason = failure;
  return Outcome::kFailed;
}

Outcome Judge::tryCase(std::string* reason) {
  Card& card = Card::get();
  applyDamage();
  const size_t damaged = card.moment();
  const Seen first = start(Starts::Again::kUnlikely);
  if (!first.error.empty()) {
    if (isGateRegion() && !card.changedSince(damaged).empty()) {
      *reason = "refuses, and has written: " + first.error;
      return Outcome::kFailed;
    }
    return tryRefused(first.error, reason);
  }
  *reason = checkSeen(first);
  if (!reason->empty()) return Outcome::kFailed;
  const size_t moment = card.moment();
  const Seen second = start(Starts::Again::kLikely);
  if (!second.error.empty()) *reason = "a second start fails: " + second.error;
  const bool unchanged = second.management == first.management && card.changedSince(moment).empty();
  if (reason->empty() && !unchanged) {
    *reason = checkSeen(second);
    if (!reason->empty()) *reason = "after a second start: " + *reason;
  }
  if (reason->empty()) *reason = checkUndone();
  if (reason->empty()) *reason = unseen_;
  if (!reason->empty()) return Outcome::kFailed;
  return lost_ ? Outcome::kLost : Outcome::kWhole;
}

Outcome Judge::judge(const Case& one, std::string* reason) {
  case_ = one;
  whole_ = &wholeOf(one);
  starts_.begin(whole_);
  from_ = regions_[one.region].from + one.byte;
  to_ = from_ + (one.isBit() ? 1 : kSector);
  findTouched();
  lost_ = false;
  unseen_.clear();
  reason->clear();
  Outcome outcome = tryCase(reason);
  Card::get().refuse(nullptr);
  const std::string stray = Card::get().takeStray();
  if (stray.empty() || outcome == Outcome::kFailed) return outcome;
  *reason = "written outside the chunks: " + stray;
  return Outcome::kFailed;
}

}  // namespace damage
