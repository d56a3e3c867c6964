#include "media/evidence/EvidenceFacts.h"

#include "recorder/card/ChunkChannels.h"
#include "recorder/card/PictureTime.h"
#include "recorder/card/TimeText.h"

namespace tarn {

std::string evidenceIso(int64_t us) {
  const PictureTime time = PictureTime::fromMicros(us);
  return TimeText::iso(time.seconds, time.milliseconds());
}

std::string evidenceTime(int64_t us) {
  const PictureTime time = PictureTime::fromMicros(us);
  return TimeText::of(time.seconds, time.milliseconds());
}

std::string channelText(int channel) {
  return channel == ChunkChannels::kUnknown ? "unknown channel"
                                            : "channel " + std::to_string(channel);
}

}  // namespace tarn
