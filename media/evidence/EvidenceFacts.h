#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "media/evidence/FileSum.h"

namespace tarn {

// A moment of a story, as both its manifest and its report say it.
std::string evidenceIso(int64_t us);   // "2026-03-01T08:19:29.250+01:00"
std::string evidenceTime(int64_t us);  // "2026-03-01 08:19:29.250+01:00"
std::string channelText(int channel);  // "channel 0", "unknown channel"

// Who made a folder, when, and how.
struct EvidenceMaking {
  int64_t madeUs = 0;
  std::string tool;  // "tarn 1.2.3"
  std::string unit;  // the machine's name
  std::string zone;  // in which times are shown: "CET"
  bool sealed = false;
  std::string operatorName;
  std::string note;
  std::optional<FileSum> card;  // the whole of it
};

}  // namespace tarn
