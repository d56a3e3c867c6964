#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recorder/session/KeepRequest.h"
#include "recorder/session/KeptCopies.h"

namespace tarn {

// One thing to keep or to release, and what has become of it.
struct KeepJob {
  KeepRequest request;
  uint32_t ticket = 0;
  KeepState state = KeepState::kWaiting;
  KeepResult result;
  std::string text;
  int64_t nextTryMs = 0;   // monotonic
  int64_t firstTryMs = 0;  // 0: none yet
};

// Does what is asked, or leaves the job waiting while its event or recording still runs: a minute
// at most for a recording, whose stream may have stalled. Opens `copies` where it is not open, and
// closes it after a failure.
TARN_API void carryOut(KeptCopies* copies, const KeepOptions& options,
                       const KeptCopies::Pause& pause, KeepJob* job);

// Events of the last minutes before now that are over and of which no copy is there, by key: those
// behind the newest one of which there is one.
std::vector<uint32_t> eventsLeftWithoutCopies();

}  // namespace tarn
