#include "recorder/session/KeptSpace.h"

#include <syslog.h>

#include <algorithm>

#include "manager/CTARNStreamManager.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/session/KeptMessages.h"

namespace tarn {
namespace {

constexpr char kSqlCopies[] = "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT " ORDER BY streamID ASC";
constexpr uint32_t kShareOfCard = 10;

std::set<uint32_t> chunksOf(const std::vector<DB_STREAM>& rows) {
  std::set<uint32_t> chunks;
  for (const DB_STREAM& row : rows) chunks.insert(row.chunkID);
  return chunks;
}

}  // namespace

void KeptSpace::setBudget(uint32_t chunks, bool strict) {
  const uint32_t all = manager_->getNumChunk();
  const uint32_t wanted = chunks != 0 ? chunks : std::max(all / kShareOfCard, 1u);
  budget_ = std::min(wanted, all / 2);
  strict_ = strict;
  givenUp_ = 0;
}

KeptSpace::Answer KeptSpace::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  return Answer::kFailed;
}

bool KeptSpace::copies(std::vector<DB_STREAM>* rows) {
  if (queries_->streams(kSqlCopies, rows)) return true;
  fail(RecordingError::kDatabase, queries_->failure());
  return false;
}

// The newest copy's chunk first: it is the one that is being filled.
KeptSpace::Answer KeptSpace::takeOwn(const RecordingSpace::Need& need,
                                     const std::vector<DB_STREAM>& rows, int* chunk) {
  std::set<uint32_t> seen;
  for (auto row = rows.rbegin(); row != rows.rend(); ++row) {
    if (row->chunkID >= manager_->getNumChunk() || !seen.insert(row->chunkID).second) continue;
    const int own = static_cast<int>(row->chunkID);
    if (!space_->usable(own, kKeptChannel, need)) continue;
    *chunk = space_->claim(own, kKeptChannel, 0);
    return *chunk < 0 ? fail(space_->error(), space_->errorText()) : Answer::kChunk;
  }
  return Answer::kFull;
}

KeptSpace::Answer KeptSpace::takeNew(const RecordingSpace::Need& need, uint32_t now, int* chunk) {
  *chunk = space_->take(kKeptChannel, 0, need, now);
  return *chunk < 0 ? fail(space_->error(), space_->errorText()) : Answer::kChunk;
}

KeptSpace::Answer KeptSpace::giveUpOldest(const std::vector<DB_STREAM>& rows,
                                          const std::set<uint32_t>& spared, uint32_t now) {
  const auto oldest = std::find_if(rows.begin(), rows.end(), [&](const DB_STREAM& row) {
    return spared.count(row.streamID) == 0;
  });
  if (oldest == rows.end()) return Answer::kFull;
  syslog(LOG_NOTICE, kMsgCopyGivenUp, oldest->streamID);
  if (!space_->deleteCopy(*oldest, now)) return fail(space_->error(), space_->errorText());
  ++givenUp_;
  return Answer::kChunk;
}

// Every round gives up a copy, so the rounds end.
KeptSpace::Answer KeptSpace::take(const RecordingSpace::Need& need, uint32_t now,
                                  const std::set<uint32_t>& spared, int* chunk) {
  for (;;) {
    std::vector<DB_STREAM> rows;
    if (!copies(&rows)) return Answer::kFailed;
    const size_t used = chunksOf(rows).size();
    if (used <= budget_) {
      const Answer own = takeOwn(need, rows, chunk);
      if (own != Answer::kFull) return own;
      if (used < budget_) return takeNew(need, now, chunk);
    }
    if (strict_) return Answer::kFull;
    const Answer answer = giveUpOldest(rows, spared, now);
    if (answer != Answer::kChunk) return answer;
  }
}

}  // namespace tarn
