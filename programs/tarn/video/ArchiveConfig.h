#pragma once

#include <cstdint>
#include <string>

#include "media/archive/CardArchiver.h"

namespace tarn {

// Where the shipped service finds what to archive, and where.
inline constexpr char kArchiveConfig[] = "/etc/tarn/archive.conf";
inline constexpr uint32_t kArchiveEverySeconds = 900;

// What a file of lines "key = value" in a section [archive] asks for: place, recorder, limit-rate,
// timeout, trust-size, every, seal, certificate, operator, note. Blank lines and lines that begin
// with # do not count. False with *error set, which names file and line; then the others are worth
// nothing.
bool readArchiveConfig(const std::string& path, CardArchiver::Settings* settings,
                       uint32_t* everySeconds, std::string* error);

}  // namespace tarn
