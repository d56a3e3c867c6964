#pragma once

#include <string>
#include <vector>

#include "base/Export.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/Redating.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/RecordingError.h"

namespace tarn {

// The tables of a recorder that runs, as a re-dating needs them. Not part of the interface.
class TARN_API RunningTables : public RedatedTables {
 public:
  // None is owned; the manager is connected to the server.
  RunningTables(CApiDb* db, const DatabaseWatch* watch, CTARNStreamManager* manager)
      : queries_(db, watch), rows_(db, watch), manager_(manager) {}

  bool streams(const std::string& sql, std::vector<DB_STREAM>* rows) override;
  bool events(const std::string& sql, std::vector<DB_EVENT>* rows) override;
  bool change(const DB_STREAM& before, const DB_STREAM& after) override;
  bool change(const DB_EVENT& before, const DB_EVENT& after) override;
  int channelOf(uint32_t chunk) override;

  // The keys that the next recording and the next event get.
  bool nextKeys(ClockEras::Keys* keys);

  // Of what failed last.
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  bool nextKey(const char* table, uint32_t* key);
  bool asked(bool good);
  bool done(JournaledRows::Outcome outcome);
  bool fail(RecordingError error, const char* text);

  RowQueries queries_;
  JournaledRows rows_;
  CTARNStreamManager* manager_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

}  // namespace tarn
