#include <algorithm>

#include "manager/ManageFormat.h"
#include "recorder/recovery/HeaderRepair.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/NativeRows.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/recovery/RecoveryFuse.h"
#include "recorder/recovery/RecoveryMessages.h"
#include "recorder/recovery/StartUp.h"

// The recovery's steps that the fuse may stop, and what the policy makes of it.

namespace tarn {

// False where the fuse stops it. Else what the policy makes of it is logged and reported.
bool Recovery::blow(const FuseFinding& finding) {
  if (!finding.blown()) return true;
  const char* end = policy_ == FusePolicy::kStop    ? kFuseStop
                    : policy_ == FusePolicy::kGuard ? (finding.isDone ? kFuseDone : kFuseGuard)
                                                    : kFuseAccepted;
  report_.fuse.push_back(finding.text + end);
  if (policy_ == FusePolicy::kStop) return fail(report_.fuse.back());
  report_.problems.push_back(report_.fuse.back());
  return true;
}

// In memory; the rebuild of the management data saves the marks. Power lost before that leaves all
// as it was found, and the next start comes to the same end.
void Recovery::guardChunks(const std::vector<uint32_t>& chunks,
                           std::vector<CHUNK_MANAGE>* records) const {
  if (policy_ != FusePolicy::kGuard) return;
  for (const uint32_t chunk : chunks) {
    if (chunk >= records->size() || isGuarded((*records)[chunk].chType)) continue;
    (*records)[chunk].chType = guardMark((*records)[chunk].chType);
  }
}

// Before a bad management file is made anew. The marks go into the new one, in one write with it,
// so that power lost behind it does not free the chunks.
bool Recovery::fuseManageFiles(std::vector<CHUNK_MANAGE>* anew) {
  std::vector<CHUNK_MANAGE> records;
  if (judgeManageFile(kFileStream, &records) != ManageRepair::kDefaults) return true;
  FuseFinding finding;
  std::string error;
  if (!fuseWithoutManagement(static_cast<uint32_t>(records.size()), &finding, &error)) {
    return fail(error);
  }
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &records);
  *anew = records;
  return true;
}

// Nothing of the journals was written yet. Where chunks are guarded an earlier start has gone on
// without what the stream journal lost.
bool Recovery::fuseJournals(const StartUp& startUp) {
  const bool known =
      std::any_of(channels_.begin(), channels_.end(),
                  [](const CHUNK_MANAGE& record) { return isGuarded(record.chType); });
  const FuseFinding finding = tarn::fuseJournals(
      startUp.report().events, known ? JournalSurvey() : startUp.report().streams);
  journalsLost_ = finding.blown();
  return blow(finding);
}

// The rows that are missing had room in these chunks, and nobody knows which.
bool Recovery::guardForgotten() {
  std::vector<uint32_t> chunks;
  std::string error;
  if (!journalsLost_ || policy_ != FusePolicy::kGuard) return true;
  if (!chunksOfMissing(channels_, &chunks, &error)) return fail(error);
  guardChunks(chunks, &channels_);
  return true;
}

// What an earlier start guards is given free only when a person says so.
bool Recovery::fuseChunks() {
  if (policy_ == FusePolicy::kAccept) {
    for (CHUNK_MANAGE& record : channels_) {
      if (isGuarded(record.chType)) record.chType = guardedChannel(record.chType);
    }
  }
  FuseFinding finding;
  std::string error;
  if (!guardForgotten()) return false;
  if (!fuseLostChunks(channels_, report_.startUp.streams, &finding, &error)) return fail(error);
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &channels_);
  return true;
}

bool Recovery::headers() {
  HeaderPlan plan;
  uint32_t rows = 0;
  if (!planHeaders(channels_, &plan, &report_)) return false;
  std::vector<DB_STREAM> unreadable = plan.deletions;
  unreadable.insert(unreadable.end(), plan.lost.begin(), plan.lost.end());
  if (!unreadable.empty() && !selectNumber("SELECT COUNT(*) FROM STREAM", &rows)) return false;
  const FuseFinding finding = fuseDeletions(unreadable, rows);
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &channels_);
  const auto guarded = [this](const DB_STREAM& row) {
    return row.chunkID < channels_.size() && isGuarded(channels_[row.chunkID].chType);
  };
  for (auto* list : {&plan.rewrites, &plan.deletions, &plan.lost}) {
    list->erase(std::remove_if(list->begin(), list->end(), guarded), list->end());
  }
  if (policy_ == FusePolicy::kAccept) {
    plan.deletions.insert(plan.deletions.end(), plan.lost.begin(), plan.lost.end());
    plan.lost.clear();
  }
  return keepLost(plan.lost) && applyHeaders(plan, &report_);
}

// Recordings of which nothing can be read any more, although they were closed: a sector went bad,
// and what is behind it may come back. They keep their room until it is needed, as every other.
// Where the management data do not tell which room that is, nobody gets any of the chunk.
bool Recovery::keepLost(const std::vector<DB_STREAM>& lost) {
  std::vector<uint32_t> unplaced;
  if (!findUnplaced(lost, channels_, &unplaced)) return false;
  for (const uint32_t chunk : unplaced) {
    CHUNK_MANAGE& record = channels_[chunk];
    record.chType = guardMark(record.chType);
  }
  for (const DB_STREAM& row : lost) report_.problems.push_back(nameOf(row) + kProblemLost);
  lost_ = lost;
  return true;
}

void Recovery::noteGuarded() {
  std::string numbers;
  for (uint32_t chunk = 0; chunk < channels_.size(); ++chunk) {
    if (!isGuarded(channels_[chunk].chType)) continue;
    report_.guarded.push_back(chunk);
    numbers += (numbers.empty() ? "" : ", ") + std::to_string(chunk);
  }
  if (!report_.guarded.empty()) report_.problems.push_back(kProblemGuarded + numbers);
}

}  // namespace tarn
