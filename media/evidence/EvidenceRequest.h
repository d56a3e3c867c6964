#pragma once

#include <optional>
#include <string>

#include "media/evidence/FileSum.h"
#include "media/export/ExportRequest.h"
#include "media/seal/SealRequest.h"

namespace tarn {

// What an evidence folder is to be made of.
struct EvidenceRequest {
  ExportRequest what;               // of these recordings; its output and `tracks` do not count
  std::string folder;               // DIR: made as DIR.part, and renamed when it is complete
  std::optional<SealRequest> seal;  // without it nothing is sealed, and the report says so
  std::optional<FileSum> card;      // of the card as a whole, where its bytes stay as they are
  bool overwrite = false;           // replace an evidence folder of that name
};

}  // namespace tarn
