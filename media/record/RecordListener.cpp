#include "media/record/RecordListener.h"

namespace tarn {

RecordListener::~RecordListener() = default;
void RecordListener::told(uint8_t /*channel*/, const std::string& /*sentence*/) {}
void RecordListener::progressed(const ChannelRecording& /*recording*/) {}
void RecordListener::meanwhile(uint64_t /*safePictures*/) {}

}  // namespace tarn
