#pragma once

#include "manager/CTARNManagerBase.h"
#include "manager/RequestFormat.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {

// Why a recorder's request to the management server came to nothing.
struct ServerFailure {
  RecordingError error;
  const char* text;
};

// From the last request of this manager: a server that answers and has no card, or no database, is
// told from one that does not answer.
inline ServerFailure serverFailure(const CTARNManagerBase& manager) {
  switch (manager.lastResult()) {
    case kResultCard:
      return {RecordingError::kCard, kErrServerCard};
    case kResultDatabase:
      return {RecordingError::kDatabase, kErrServerDatabase};
    default:
      return {RecordingError::kServer, kErrServer};
  }
}

}  // namespace tarn
