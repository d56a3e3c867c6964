#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "recorder/rows/RowQueries.h"
#include "recorder/session/CopyPlan.h"
#include "recorder/session/KeptCopies.h"
#include "recorder/session/KeptSpace.h"
#include "recorder/session/RowWriter.h"

namespace tarn {

// A recording of what is to be kept.
struct CopySource {
  DB_STREAM row;
  int channel;
};

// Makes one kept copy at a time: room, header, row, pictures, and the end that makes it whole. What
// cannot be finished is given up before the next one begins. Not part of the interface; used by one
// thread.
class PieceCopier {
 public:
  PieceCopier(CTARNStreamManager* manager, CApiDb* db, DatabaseWatch* watch, RecordingSpace* rings,
              KeptSpace* space);

  // What the following copies are made for: nothing that they need goes for them.
  void start(const KeptCopies::Pause* pause, KeepResult* result);
  void spare(uint32_t streamID) { spared_.insert(streamID); }
  void noteMissing(uint32_t pictures) { result_->missing += pictures; }

  KeepOutcome copy(const CopySource& source, CopyPlan* plan,
                   const std::vector<PictureEntry>& piece);

  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  KeepOutcome end(KeepOutcome outcome, const char* text);
  KeepOutcome fail(RecordingError error, const char* text);
  KeepOutcome failWriter() { return fail(writer_.error(), writer_.errorText()); }
  KeepOutcome begin(const CopySource& source, const std::vector<PictureEntry>& piece);
  KeepOutcome takeChunk(const std::vector<PictureEntry>& piece, int* chunk);
  KeepOutcome copyPictures(CopyPlan* plan, const std::vector<PictureEntry>& piece);
  KeepOutcome step(uint32_t bytes);
  KeepOutcome finish(const CopySource& source);
  KeepOutcome isAsItWas(const CopySource& source);

  RowQueries queries_;
  KeptSpace* space_;
  RecordingStatistics statistics_;
  RowWriter writer_;
  const KeptCopies::Pause* pause_ = nullptr;
  KeepResult* result_ = nullptr;
  std::set<uint32_t> spared_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

}  // namespace tarn
