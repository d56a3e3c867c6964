#include "recorder/recovery/UnfinishedRedating.h"

#include "recorder/recovery/NativeRows.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/RedatingUndo.h"

namespace tarn {
namespace {

class NativeTables : public RedatedTables {
 public:
  NativeTables(const std::vector<CHUNK_MANAGE>& channels, RecoveryReport* report)
      : channels_(channels), report_(report) {}

  bool streams(const std::string& sql, std::vector<DB_STREAM>* rows) override {
    return selectStreams(sql, rows);
  }
  bool events(const std::string& sql, std::vector<DB_EVENT>* rows) override {
    return selectEvents(sql, rows);
  }
  bool change(const DB_STREAM& before, const DB_STREAM& after) override {
    if (redateStreamNative(after)) return true;
    report_->error = cannotChange(before);
    return false;
  }
  bool change(const DB_EVENT& before, const DB_EVENT& after) override {
    if (redateEventNative(after)) return true;
    report_->error = cannotChange(before);
    return false;
  }
  int channelOf(uint32_t chunk) override {
    return chunk < channels_.size() ? channels_[chunk].chType : -1;
  }

 private:
  const std::vector<CHUNK_MANAGE>& channels_;
  RecoveryReport* report_;
};

}  // namespace

bool finishRedating(const std::vector<CHUNK_MANAGE>& channels, RecoveryReport* report) {
  ClockEras::forget();
  NativeTables tables(channels, report);
  return finishRedatings(&tables, -1);
}

}  // namespace tarn
