#pragma once

#include "base/Export.h"

namespace tarn {

// Why this thread's last replay (CDbRestore::restoreEventDb(), restoreStreamDb()) gave -1, one line
// for a person; "" when it did not, or when the log's own line is all there is to say. Not part of
// the interface. Valid until the thread's next replay.
TARN_API const char* lastReplayFailure();

void clearReplayFailure();
// Always false.
bool noteReplayFailure(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tarn
