#include "recorder/recovery/HeaderRepair.h"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "base/Wrap.h"
#include "db/RowStatus.h"
#include "dblog/CDbRestore.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/recovery/NativeRows.h"

namespace tarn {
namespace {

using Kind = RecoveryChange::Kind;

constexpr char kSqlOldest[] =
    "SELECT * FROM STREAM WHERE streamID IN ( SELECT MIN( streamID ) FROM STREAM GROUP BY chunkID "
    ")";
constexpr char kSqlNewest[] =
    "SELECT * FROM STREAM WHERE streamID IN ( SELECT MAX( streamID ) FROM STREAM GROUP BY chunkID "
    ")";

enum class Verdict { kGood, kRewrite, kDelete, kLost, kUnreadable };

// One row's header against its entries.
class HeaderCheck {
 public:
  explicit HeaderCheck(const DB_STREAM& row) : row_(row), index_(row) {}

  Verdict run() {
    if (row_.recSize == 0 || index_.isPlaceless()) return Verdict::kGood;
    const Delivery read = index_.header(&present_);
    if (read == Delivery::kRefused) return Verdict::kUnreadable;
    headerGood_ = read == Delivery::kGood;
    if (headerGood_ && fitsEnds()) return Verdict::kGood;
    if (row_.recSize > index_.capacity()) return Verdict::kDelete;
    return compare();
  }

  bool rewrite() const {
    uint8_t bytes[kRecordSize];
    encodeStreamHeader(expected_, bytes);
    return CDbRestore().writePictureChunk(static_cast<short>(row_.chunkID), row_.chunkOffset, bytes,
                                          kRecordSize) == 0;
  }

 private:
  // The usual case, decided from the first and last entry: pictures lie back to back.
  bool fitsEnds() {
    PictureEntry first;
    PictureEntry last;
    const uint32_t pictures = row_.recSize;
    return present_.pictures == pictures && present_.lastTime == lastTime() && present_.gops > 0 &&
           index_.entry(0, &first) == Delivery::kGood &&
           index_.entry(pictures - 1, &last) == Delivery::kGood &&
           first.number == present_.firstNumber && first.dataOffset == present_.dataOffset &&
           last.number == wrapAdd32(present_.firstNumber, pictures - 1) &&
           present_.dataSize == sizeUpTo(present_.dataOffset, last);
  }

  // By the clock of the entries.
  uint32_t lastTime() { return static_cast<uint32_t>(row_.endDate - rowCorrection(row_, &index_)); }

  uint32_t sizeUpTo(uint32_t start, const PictureEntry& last) const {
    return wrapAdd32(ringDistance(start, last.dataOffset, index_.streamSize()), last.size);
  }

  // Reads all entries. False when the device does not give them.
  bool scan() {
    PictureEntry entry;
    for (uint32_t i = 0; i < row_.recSize; ++i) {
      const Delivery read = index_.entry(i, &entry);
      if (read == Delivery::kRefused) return false;
      if (read == Delivery::kBad) continue;
      if (good_ == 0) {
        first_ = entry;
        firstIndex_ = i;
      } else if (entry.number != wrapAdd32(first_.number, i - firstIndex_)) {
        continue;
      }
      ++good_;
      if (entry.isKey()) ++gops_;
      last_ = entry;
      lastIndex_ = i;
    }
    return true;
  }

  Verdict compare() {
    if (!scan()) return Verdict::kUnreadable;
    if (good_ == 0) return isOverwritten() ? Verdict::kDelete : Verdict::kLost;
    expect();
    const bool same = headerGood_ && expected_.marker == present_.marker &&
                      expected_.firstNumber == present_.firstNumber &&
                      expected_.dataOffset == present_.dataOffset &&
                      expected_.dataSize == present_.dataSize &&
                      expected_.lastTime == present_.lastTime &&
                      expected_.pictures == present_.pictures && expected_.gops == present_.gops;
    return same ? Verdict::kGood : Verdict::kRewrite;
  }

  // Room is given free after its rows are deleted. A row whose room was used again came back by
  // mistake.
  bool isOverwritten() {
    for (uint32_t i = 0; i < row_.recSize; ++i) {
      if (index_.isForeign(i)) return true;
    }
    return false;
  }

  // Of what bad entries do not tell, a header that fits the others is believed.
  void expect() {
    const uint32_t firstNumber = wrapSub32(first_.number, firstIndex_);
    const bool believed = headerGood_ && present_.firstNumber == firstNumber;
    const bool totalsBelieved = believed && present_.pictures == row_.recSize;
    expected_.marker = headerGood_                            ? present_.marker
                       : (row_.status & kStatusRepaired) != 0 ? kMarkerOpen
                                                              : kMarkerClosed;
    expected_.firstNumber = firstNumber;
    expected_.dataOffset = firstIndex_ != 0 && believed ? present_.dataOffset : first_.dataOffset;
    expected_.dataSize = lastIndex_ != row_.recSize - 1 && totalsBelieved
                             ? present_.dataSize
                             : sizeUpTo(expected_.dataOffset, last_);
    expected_.gops = good_ != row_.recSize && totalsBelieved ? present_.gops : gops_;
    expected_.lastTime = lastTime();
    expected_.pictures = row_.recSize;
  }

  const DB_STREAM row_;
  RecordingIndex index_;
  StreamHeader present_;
  StreamHeader expected_;
  bool headerGood_ = false;
  uint32_t good_ = 0;
  uint32_t gops_ = 0;
  PictureEntry first_;
  uint32_t firstIndex_ = 0;
  PictureEntry last_;
  uint32_t lastIndex_ = 0;
};

// The repair of an interrupted recording leaves its header to this step; that is no news.
bool wasClosedNow(uint32_t streamID, const RecoveryReport& report) {
  return std::any_of(report.changes.begin(), report.changes.end(), [streamID](const auto& change) {
    return change.kind == Kind::kRecordingClosed && change.key == streamID;
  });
}

// Once: the oldest row of a chunk may be its newest.
void noteUnreadable(const DB_STREAM& row, RecoveryReport* report) {
  const std::string text = nameOf(row) + ": the card does not deliver its header and entries";
  if (report->problems.empty() || report->problems.back() != text) report->problems.push_back(text);
}

// False: the row is to go, so the next one of its chunk is looked at.
bool planRow(const DB_STREAM& row, HeaderPlan* plan, RecoveryReport* report) {
  switch (HeaderCheck(row).run()) {
    case Verdict::kDelete:
      plan->deletions.push_back(row);
      return false;
    case Verdict::kLost:
      plan->lost.push_back(row);
      return false;
    case Verdict::kRewrite:
      plan->rewrites.push_back(row);
      break;
    case Verdict::kUnreadable:
      noteUnreadable(row, report);
      break;
    case Verdict::kGood:
      break;
  }
  return true;
}

bool has(const std::vector<DB_STREAM>& rows, const DB_STREAM& row) {
  return std::any_of(rows.begin(), rows.end(),
                     [&row](const DB_STREAM& one) { return one.streamID == row.streamID; });
}

bool isSettled(const DB_STREAM& row, const HeaderPlan& plan) {
  return has(plan.deletions, row) || has(plan.lost, row);
}

// False when the database does not go along.
bool endOfChunk(uint32_t chunk, bool oldest, const std::string& behind,
                std::vector<DB_STREAM>* rows) {
  return selectStreams(
      "SELECT * FROM STREAM WHERE chunkID = " + std::to_string(chunk) + behind +
          (oldest ? " ORDER BY streamID ASC LIMIT 1" : " ORDER BY streamID DESC LIMIT 1"),
      rows);
}

// The oldest (or newest) row of a chunk, and the next one as long as rows must go.
bool planEnd(DB_STREAM row, bool oldest, HeaderPlan* plan, RecoveryReport* report) {
  while (!isSettled(row, *plan) && !planRow(row, plan, report)) {
    const std::string behind =
        (oldest ? " AND streamID > " : " AND streamID < ") + std::to_string(row.streamID);
    std::vector<DB_STREAM> rows;
    if (!endOfChunk(row.chunkID, oldest, behind, &rows)) return false;
    if (rows.empty()) return true;
    row = rows[0];
  }
  return true;
}

// Tested once more: the oldest row of a chunk may be its newest, and is mended then.
bool rewriteRow(const DB_STREAM& row, RecoveryReport* report) {
  HeaderCheck check(row);
  const Verdict verdict = check.run();
  if (verdict == Verdict::kUnreadable) noteUnreadable(row, report);
  if (verdict != Verdict::kRewrite) return true;
  if (!check.rewrite()) return false;
  if (wasClosedNow(row.streamID, *report)) return true;
  report->changes.push_back({Kind::kHeaderRewritten, row.streamID, row.recSize, row.endDate,
                             nameOf(row) + ": stream header rewritten from its entries"});
  return true;
}

bool deleteRow(const DB_STREAM& row, RecoveryReport* report) {
  if (!deleteStreamNative(row)) return false;
  report->changes.push_back({Kind::kRecordingDeleted, row.streamID, 0, 0,
                             nameOf(row) + ": none of its entries is left; deleted"});
  return true;
}

}  // namespace

bool planHeaders(const std::vector<CHUNK_MANAGE>& chunks, HeaderPlan* plan,
                 RecoveryReport* report) {
  // Asked for at once: a statement for each end of each chunk would take most of the step.
  std::vector<DB_STREAM> oldest;
  std::vector<DB_STREAM> newest;
  if (!selectStreams(kSqlOldest, &oldest) || !selectStreams(kSqlNewest, &newest)) return false;
  std::map<uint32_t, DB_STREAM> newestOf;
  for (const DB_STREAM& row : newest) newestOf.emplace(row.chunkID, row);
  for (const DB_STREAM& row : oldest) {
    if (row.chunkID < chunks.size() && isGuarded(chunks[row.chunkID].chType)) continue;
    const auto last = newestOf.find(row.chunkID);
    if (last == newestOf.end() || !planEnd(row, true, plan, report) ||
        !planEnd(last->second, false, plan, report)) {
      return false;
    }
  }
  return true;
}

namespace {

bool isPlaced(const DB_STREAM& row, bool oldest, const CHUNK_MANAGE& known) {
  if (oldest) return known.pictureUseOffset == row.chunkOffset;
  const uint32_t ring = ChunkSource(kFilePicture, row.chunkID, O_RDONLY).size();
  return ring != 0 && known.pictureFreeOffset == ringAdvance(row.chunkOffset, row.chunkSize, ring);
}

// Only the ends of a chunk matter: what lies between is between.
bool areEndsPlaced(uint32_t chunk, const std::vector<DB_STREAM>& lost, const CHUNK_MANAGE& known,
                   bool* placed) {
  *placed = known.chType >= 0;
  for (const bool oldest : {true, false}) {
    std::vector<DB_STREAM> rows;
    if (!endOfChunk(chunk, oldest, "", &rows)) return false;
    if (rows.empty() || !has(lost, rows[0])) continue;
    *placed = *placed && isPlaced(rows[0], oldest, known);
  }
  return true;
}

}  // namespace

bool findUnplaced(const std::vector<DB_STREAM>& lost, const std::vector<CHUNK_MANAGE>& chunks,
                  std::vector<uint32_t>* unplaced) {
  std::set<uint32_t> numbers;
  for (const DB_STREAM& row : lost) numbers.insert(row.chunkID);
  for (const uint32_t chunk : numbers) {
    if (chunk >= chunks.size()) continue;
    bool placed = false;
    if (!areEndsPlaced(chunk, lost, chunks[chunk], &placed)) return false;
    if (!placed) unplaced->push_back(chunk);
  }
  return true;
}

bool applyHeaders(const HeaderPlan& plan, RecoveryReport* report) {
  return std::all_of(plan.deletions.begin(), plan.deletions.end(),
                     [report](const DB_STREAM& row) { return deleteRow(row, report); }) &&
         std::all_of(plan.rewrites.begin(), plan.rewrites.end(),
                     [report](const DB_STREAM& row) { return rewriteRow(row, report); });
}

}  // namespace tarn
