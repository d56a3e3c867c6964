#pragma once

#include <cstdint>

#include "dblog/SyslogEnd.h"
#include "recorder/log/LogFormat.h"

namespace tarn {

// What the text of a chunk ends at; the search for its end knows them.
inline constexpr const auto& kLogMark = kSyslogMark;
inline constexpr const auto& kLogEmpty = kSyslogEmpty;
inline constexpr uint32_t kLogMarkBytes = kLogStampBytes + 1;
static_assert(sizeof kLogMark - 1 == kLogMarkBytes && sizeof kLogEmpty - 1 == kLogMarkBytes);

}  // namespace tarn
