#include "recorder/session/GopRoom.h"

#include <algorithm>

#include "recorder/recording/AnnexB.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn {
namespace {

// Guesses until a GOP has been seen.
constexpr uint32_t kFirstGopPictures = 60;
constexpr uint32_t kFirstGopBytes = 512 * 1024;
// Some ten seconds of sound, so that a chunk is not changed for every block.
constexpr uint32_t kSoundBlocks = 20;
constexpr uint32_t kFirstBlockBytes = 4 * 1024;

}  // namespace

void GopRoom::add(size_t size, bool key) {
  if (key) bytes_ = pictures_ = 0;
  bytes_ += static_cast<uint32_t>(size + kTimeStampSeiSize);
  ++pictures_;
  mostBytes_ = std::max(mostBytes_, bytes_);
  mostPictures_ = std::max(mostPictures_, pictures_);
}

// No more than a quarter of a chunk: on small chunks asking for more would throw away more than is
// won.
RecordingSpace::Need GopRoom::need(size_t picture, uint32_t streamChunk,
                                   uint32_t pictureChunk) const {
  if (sound_) {
    const uint32_t block = mostBytes_ != 0 ? mostBytes_ : kFirstBlockBytes;
    const uint32_t some = std::min(block * kSoundBlocks, streamChunk / 4);
    return {std::max(some, static_cast<uint32_t>(picture)),
            std::min((kSoundBlocks + 1) * kRecordSize, pictureChunk / 4), true};
  }
  const uint32_t second = bitrate_ != 0 ? bitrate_ / 8 : kFirstGopBytes;
  const uint32_t gop = mostBytes_ != 0 ? mostBytes_ : second;
  const uint32_t pictures = mostPictures_ != 0 ? mostPictures_ : kFirstGopPictures;
  const auto least = static_cast<uint32_t>(picture + kTimeStampSeiSize);
  return {std::max(std::min(gop, streamChunk / 8) * 2, least),
          std::min((pictures * 2 + 2) * kRecordSize, pictureChunk / 4), false};
}

}  // namespace tarn
