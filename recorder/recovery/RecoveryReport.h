#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recorder/recovery/ManageRepair.h"
#include "recorder/recovery/StartUpReport.h"

namespace tarn {

// One recording or event that a recovery changed.
struct RecoveryChange {
  enum class Kind {
    kRecordingClosed,   // was interrupted; `pictures` came back
    kRecordingDeleted,  // held nothing that could be used
    kHeaderRewritten,   // its stream header did not fit its entries
    kEventClosed,
    kEventDeleted,
  };
  Kind kind;
  uint32_t key;           // streamID or eventID
  uint32_t pictures = 0;  // of a recording
  uint32_t endDate = 0;   // seconds; 0 for what was deleted
  std::string text;       // one line for a person
};

struct RecoveryStepTime {
  const char* step;
  int64_t micros;
};

// What a recovery does where it would give up recordings in a way that no power cut explains:
// delete closed ones in bulk, make management data anew while the journals hold nothing, or free
// most of a card that held recordings.
enum class FusePolicy {
  kStop,    // ends with an error, before it did any of it
  kGuard,   // goes on without it: those chunks stay as they are, and nothing records into them
  kAccept,  // does it, and gives free what is guarded since an earlier start
};

// What a recovery did.
struct RecoveryReport {
  // What stopped it, in a person's words; empty when it went through. The recorder must not start
  // after an error.
  std::string error;
  bool refused = false;  // a management server runs; nothing was touched
  // What could not be done or read but does not keep the recorder from starting.
  std::vector<std::string> problems;
  std::vector<RecoveryChange> changes;

  // Why the fuse blew, one sentence each; then what the policy made of it. kStop has an error too.
  std::vector<std::string> fuse;
  std::vector<uint32_t> guarded;  // stream chunks, at the end

  ManageRepair streamManage = ManageRepair::kGood;
  ManageRepair syslogManage = ManageRepair::kGood;
  ManageRepair journalManage = ManageRepair::kGood;
  // The database came from its image; of `startUp` only what the journals hold was needed.
  bool fromImage = false;
  StartUpReport startUp;
  uint32_t eventRows = 0;  // at the end
  uint32_t streamRows = 0;
  std::vector<RecoveryStepTime> times;

  bool ok() const { return error.empty(); }
  uint32_t count(RecoveryChange::Kind kind) const {
    uint32_t number = 0;
    for (const RecoveryChange& change : changes) number += change.kind == kind ? 1 : 0;
    return number;
  }
};

}  // namespace tarn
