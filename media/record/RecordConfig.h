#pragma once

#include <string>

#include "base/Export.h"
#include "media/record/RecordRequest.h"

namespace tarn {

// Where the shipped service finds what to record.
inline constexpr char kRecordConfig[] = "/etc/tarn/record.conf";

// Reads what to record from a file of lines "key = value" under sections: [recording] with segment,
// flush, fps, times, keep-events, keep-budget and keep-strict, [channel N] with input. Blank lines
// and lines that begin with # do not count. False with *error set, which names file and line; then
// *request is worth nothing. Throws std::bad_alloc when memory runs out.
TARN_API bool readRecordConfig(const std::string& path, RecordRequest* request, std::string* error);

}  // namespace tarn
