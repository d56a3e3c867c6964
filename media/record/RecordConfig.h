#pragma once

#include <string>

#include "video/Record.h"

namespace tarn::tool {

// Where the shipped service finds what to record.
inline constexpr char kRecordConfig[] = "/etc/tarn/record.conf";

// Reads what to record from a file of lines "key = value" under sections: [recording] with segment,
// flush, fps and times, [channel N] with input. Blank lines and lines that begin with # do not
// count. False with *error set, which names file and line; then *request is worth nothing.
bool readRecordConfig(const std::string& path, RecordRequest* request, std::string* error);

}  // namespace tarn::tool
