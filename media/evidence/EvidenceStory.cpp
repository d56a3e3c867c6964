#include "media/evidence/EvidenceStory.h"

#include <algorithm>

namespace tarn {

bool EvidenceChannel::hasUnreadable() const {
  return std::any_of(recordings.begin(), recordings.end(),
                     [](const EvidenceRecording& one) { return !one.readable; });
}

const char* gapReasonName(GapReason reason) {
  switch (reason) {
    case GapReason::kNoRecording:
      return "noRecording";
    case GapReason::kOverwritten:
      return "overwritten";
    case GapReason::kInterrupted:
      return "interrupted";
    case GapReason::kDamaged:
      return "damaged";
    case GapReason::kUnreadable:
      return "unreadable";
    case GapReason::kUnknown:
      break;
  }
  return "unknown";
}

}  // namespace tarn
