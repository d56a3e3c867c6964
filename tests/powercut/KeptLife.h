#pragma once

#include "powercut/Workload.h"

namespace powercut {

// Events are kept beside a recording whose ring comes round: copies within the budget, one for
// which an older one goes, and one that is released.
void keptEvents(Recorded* out);

}  // namespace powercut
