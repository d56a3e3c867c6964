#pragma once

#include <string>
#include <vector>

#include "media/serve/JsonText.h"
#include "recorder/session/RecordingStatus.h"

namespace tarn {

// What processes that record tell of the card's wear and of its flushes, as a part of the answer of
// /api/health and of /metrics. Of those that tell nothing there is nothing.
void addRecorders(JsonText* json, const std::vector<RecordingStatus>& statuses);
void addRecorderMetrics(std::string* text, const std::vector<RecordingStatus>& statuses);

}  // namespace tarn
