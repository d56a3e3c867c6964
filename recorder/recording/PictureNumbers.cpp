#include "recorder/recording/PictureNumbers.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Endian.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn {
namespace {
constexpr uint32_t kBlock = 32 * 1024;
// Room kept for later recordings when a chunk's numbers are chosen behind its greatest one.
constexpr uint32_t kPlenty = 1u << 24;

// Smallest multiple of the step at or above; in 64 bits, so that it cannot wrap.
uint64_t roundUp(uint64_t number) {
  constexpr uint64_t kStep = PictureNumbers::kStep;
  const uint64_t up = (number + kStep - 1) / kStep * kStep;
  return up == 0 ? kStep : up;
}
}  // namespace

void PictureNumbers::setSlots(std::vector<uint32_t> numbers) {
  slots_ = static_cast<uint32_t>(numbers.size());
  // Erased slots and the like hold numbers that no recording reaches.
  numbers.erase(std::remove_if(numbers.begin(), numbers.end(),
                               [](uint32_t number) { return number >= kLimit; }),
                numbers.end());
  if (numbers.empty()) {
    choose(0, kLimit);
    return;
  }
  const uint64_t greatest = *std::max_element(numbers.begin(), numbers.end());
  if (greatest + kPlenty < kLimit) {
    choose(greatest + 2, kLimit);
    return;
  }
  std::sort(numbers.begin(), numbers.end());
  uint64_t begin = 0;
  uint64_t end = numbers.front();
  for (size_t i = 0; i < numbers.size(); ++i) {
    const uint64_t above = uint64_t{numbers[i]} + 1;
    const uint64_t next = i + 1 < numbers.size() ? numbers[i + 1] : kLimit;
    if (next <= above || next - above <= end - begin) continue;
    begin = above;
    end = next;
  }
  choose(begin, end);
}

void PictureNumbers::choose(uint64_t begin, uint64_t end) {
  next_ = static_cast<uint32_t>(begin);
  end_ = static_cast<uint32_t>(end);
}

int PictureNumbers::scan(int chunk, uint32_t pictureChunkSize) {
  ChunkSource reader(kFilePicture, static_cast<uint32_t>(chunk), O_RDONLY);
  if (!reader.isOpen() || pictureChunkSize > reader.size()) return -1;
  std::vector<uint32_t> numbers;
  numbers.reserve(pictureChunkSize / kRecordSize);
  std::vector<uint8_t> block(kBlock);
  for (uint32_t done = 0; done < pictureChunkSize;) {
    const uint32_t length = std::min(kBlock, pictureChunkSize - done);
    if (reader.read(done, block.data(), length) != Delivery::kGood) return -1;
    for (uint32_t off = 0; off + kRecordSize <= length; off += kRecordSize) {
      numbers.push_back(getLe32(block.data() + off + kEntryNumberOff));
    }
    done += length;
  }
  setSlots(std::move(numbers));
  return 0;
}

bool PictureNumbers::first(uint32_t* number) const {
  const uint64_t candidate = roundUp(next_);
  // The slots are a bound on the pictures of one recording; the number behind the last one must be
  // free too, or a stale slot could follow it.
  if (candidate + slots_ >= end_) return false;
  *number = static_cast<uint32_t>(candidate);
  return true;
}

}  // namespace tarn
