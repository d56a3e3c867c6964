#pragma once

#include <string>

#include "base/Export.h"
#include "media/seal/FileProgress.h"
#include "media/seal/SealRequest.h"

namespace tarn {

// Puts another seal on a sealed file, as a receipt for instance: those that it has stay as they
// are, and must hold. The file is exchanged as a whole, once the new one is complete; *error says
// why it was left as it is. Throws std::bad_alloc when memory runs out.
TARN_API bool sealFile(const std::string& path, const SealRequest& request, std::string* error);
TARN_API bool sealFile(const std::string& path, const SealRequest& request, std::string* error,
                       const FileProgress& progress);

}  // namespace tarn
