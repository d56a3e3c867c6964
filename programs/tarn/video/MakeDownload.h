#pragma once

#include <optional>

#include "media/seal/SealRequest.h"
#include "media/serve/DownloadMaker.h"

namespace tarn {

// Makes what a page's user keeps, as `tarn export` makes it: movies and evidence folders, sealed
// where `seal` says with what.
DownloadMaker downloadMaker(const std::optional<SealRequest>& seal);

}  // namespace tarn
