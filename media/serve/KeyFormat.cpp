#include "media/serve/KeyFormat.h"

#include <algorithm>

#include "media/PictureFormat.h"
#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

// Parameter sets stand in front of the slices: this much of a picture nearly always has them all.
constexpr uint32_t kHeadBytes = 2048;

bool hasSlice(const std::vector<uint8_t>& annexB) {
  NalScanner scanner(annexB.data(), annexB.size());
  NalUnit unit;
  while (scanner.next(&unit)) {
    if (unit.type() != 0 && unit.type() <= kNalIdr) return true;
  }
  return false;
}

}  // namespace

bool KeyFormat::sequenceOf(RecordingReader* reader, uint32_t index,
                           std::vector<uint8_t>* sequence) {
  PictureEntry entry;
  if (!reader->picture(index, &entry) || !entry.isKey()) return false;
  PictureEntry head = entry;
  head.size = std::min(entry.size, kHeadBytes);
  std::vector<uint8_t> bytes;
  if (!reader->readPicture(head, &bytes)) return false;
  // A set that is cut off would pass for another one.
  const bool enough = head.size == entry.size || hasSlice(bytes);
  if (!enough && !reader->readPicture(entry, &bytes)) return false;
  *sequence = parameterSetsOf(bytes).sequence;
  return true;
}

void KeyFormat::begin(RecordingReader* reader) {
  reader_ = reader;
  format_ = 0;
  first_.clear();
  endsDiffer_ = false;
  for (uint32_t i = 0; first_.empty() && i < reader->pictureCount(); ++i) {
    PictureEntry entry;
    if (reader->picture(i, &entry) && entry.isKey()) sequenceOf(reader, i, &first_);
  }
  current_ = first_;
  std::vector<uint8_t> last;
  for (uint32_t i = reader->pictureCount(); i-- > 0;) {
    if (!sequenceOf(reader, i, &last)) continue;
    endsDiffer_ = !last.empty() && last != first_;
    break;
  }
}

uint32_t KeyFormat::formatAt(uint32_t key) {
  std::vector<uint8_t> sequence;
  if (!sequenceOf(reader_, key, &sequence) || sequence.empty() || sequence == current_)
    return format_;
  current_.swap(sequence);
  format_ = current_ == first_ ? 0 : key;
  return format_;
}

}  // namespace tarn
