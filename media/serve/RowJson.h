#pragma once

#include "media/serve/JsonText.h"
#include "media/serve/ServedRows.h"

// A recording and an event as answers tell them (docs/openapi.json).
namespace tarn {

void addRecording(JsonText* json, const ServedRecording& recording);
void addEvent(JsonText* json, const DB_EVENT& event);

}  // namespace tarn
