#pragma once

#include <nlohmann/json.hpp>

#include "media/export/ExportReport.h"

namespace tarn {

// What is told of an exported file, as it is kept from one run to the next: all of it, so that both
// tell the same. What is taken apart must be of the same version; it throws otherwise.
nlohmann::json jsonOf(const ExportedChannel& exported);
ExportedChannel exportedOf(const nlohmann::json& json);

}  // namespace tarn
