#pragma once

#include <vector>

#include "media/serve/PageFile.h"

namespace tarn {

// The files of programs/tarn/page/, as the build put them into the program.
std::vector<PageFile> pageFiles();

}  // namespace tarn
