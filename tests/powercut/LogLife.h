#pragma once

#include <string>

#include "powercut/Workload.h"

namespace powercut {

// A recorder that writes its system log until the five chunks have come round, between two pieces
// of a recording.
void logLife(Recorded* out, uint32_t variant);

// What must be there of the lines after a cut, and in which order. Empty, or what is not.
std::string checkLog(const Recorded& life, size_t at);

}  // namespace powercut
