#pragma once

#include <string>
#include <vector>

#include "fat/CardWear.h"
#include "media/record/RecordListener.h"

namespace tarn {

// What a recording gave to the card, by cause, as a table of lines: bytes and flushes, of the
// video, a recorded minute and a MiB of video. Minutes are those of the longest channel. The
// management server is another process: its part is what it writes for each save that it was asked
// for.
std::string wearText(const CardWear& wear, const std::vector<ChannelRecording>& recordings);

}  // namespace tarn
