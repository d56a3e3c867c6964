#include "recorder/recovery/PhantomRecords.h"

#include <algorithm>

namespace tarn {
namespace {

// For each record, how many would be kept of a ring that began with it: itself and what is kept of
// one that begins with the next greater key, to the greatest of all. Twice around, from the back.
std::vector<uint32_t> keptFrom(const std::vector<LiveRecord>& live) {
  const size_t count = live.size();
  std::vector<uint32_t> kept(count, 0);
  std::vector<size_t> greater;  // keys rise towards the front
  greater.reserve(count);
  for (size_t i = 2 * count; i-- > 0;) {
    const size_t record = i % count;
    while (!greater.empty() && live[greater.back()].key <= live[record].key) greater.pop_back();
    kept[record] = greater.empty() ? 1 : kept[greater.back()] + 1;
    greater.push_back(record);
  }
  return kept;
}

// The first record of the ring by the free offset alone: the one that lies there or next behind it.
// One that lies just there may also be the newest, when power went before its offset was saved: as
// the newer of two orders that keep as many it is, unless its key is smaller than all others.
size_t firstByOffset(const std::vector<LiveRecord>& live, const std::vector<uint32_t>& kept,
                     uint32_t free) {
  const auto behind =
      std::lower_bound(live.begin(), live.end(), free,
                       [](const LiveRecord& record, uint32_t at) { return record.position < at; });
  if (behind == live.end()) return 0;
  const auto index = static_cast<size_t>(behind - live.begin());
  const size_t next = (index + 1) % live.size();
  if (behind->position != free || kept[index] > kept[next]) return index;
  const auto notGreater = [&](const LiveRecord& record) {
    return record.position != free && record.key <= behind->key;
  };
  return std::any_of(live.begin(), live.end(), notGreater) ? next : index;
}

std::vector<uint32_t> phantomsOfRing(const std::vector<LiveRecord>& live, uint32_t free) {
  std::vector<uint32_t> phantoms;
  if (live.size() < 2) return phantoms;
  const std::vector<uint32_t> kept = keptFrom(live);
  const size_t begin = firstByOffset(live, kept, free);
  size_t first = begin;
  for (size_t i = 1; i < live.size(); ++i) {
    const size_t other = (begin + i) % live.size();
    if (kept[other] > kept[first]) first = other;
  }
  uint32_t greatest = live[first].key;
  for (size_t i = 1; i < live.size(); ++i) {
    const size_t record = (first + i) % live.size();
    if (live[record].key > greatest) {
      greatest = live[record].key;
    } else {
      phantoms.push_back(static_cast<uint32_t>(record));
    }
  }
  std::sort(phantoms.begin(), phantoms.end());
  return phantoms;
}

// Keys of kept copies, and how many records each has, others than copies included.
class KeysOfCopies {
 public:
  explicit KeysOfCopies(const std::vector<LiveRecord>& live) {
    for (const LiveRecord& record : live) {
      if (record.kept) keys_.push_back(record.key);
    }
    std::sort(keys_.begin(), keys_.end());
    keys_.erase(std::unique(keys_.begin(), keys_.end()), keys_.end());
    counts_.resize(keys_.size());
    if (keys_.empty()) return;
    for (const LiveRecord& record : live) {
      const size_t index = indexOf(record.key);
      if (index < keys_.size() && keys_[index] == record.key) ++counts_[index];
    }
  }
  // `key` is one of them.
  bool isThereOnce(uint32_t key) const { return counts_[indexOf(key)] == 1; }

 private:
  size_t indexOf(uint32_t key) const {
    return static_cast<size_t>(std::lower_bound(keys_.begin(), keys_.end(), key) - keys_.begin());
  }

  std::vector<uint32_t> keys_;
  std::vector<uint32_t> counts_;
};

}  // namespace

std::vector<uint32_t> findPhantomRecords(const std::vector<LiveRecord>& live, uint32_t free) {
  const KeysOfCopies copies(live);
  std::vector<LiveRecord> ring;
  std::vector<uint32_t> indexes;
  ring.reserve(live.size());
  indexes.reserve(live.size());
  for (size_t i = 0; i < live.size(); ++i) {
    if (live[i].kept && copies.isThereOnce(live[i].key)) continue;
    ring.push_back(live[i]);
    indexes.push_back(static_cast<uint32_t>(i));
  }
  std::vector<uint32_t> phantoms = phantomsOfRing(ring, free);
  for (uint32_t& phantom : phantoms) phantom = indexes[phantom];
  return phantoms;
}

}  // namespace tarn
