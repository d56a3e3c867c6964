#include "VideoCommands.h"

namespace tarn {

const VideoCommands kVideoCommands{};

}  // namespace tarn
