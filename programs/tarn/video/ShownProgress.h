#pragma once

#include <fmt/format.h>

#include <string>

#include "Console.h"
#include "media/seal/FileProgress.h"

namespace tarn {

// How far the work on a file is, in percent, on a line that outlives this.
inline FileProgress shownOn(ProgressLine* line, const std::string& path) {
  return [line, path, shown = uint64_t{101}](uint64_t done, uint64_t all) mutable {
    const uint64_t percent = all == 0 ? 100 : done * 100 / all;
    if (percent == shown) return;
    shown = percent;
    line->show(fmt::format("{}: {} %", path, percent));
  };
}

}  // namespace tarn
