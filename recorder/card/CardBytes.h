#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "recorder/card/ReadPatience.h"

namespace tarn {

// A card as a whole, for whoever judges where things lie on it: its bytes as the device gives them,
// or as they would be after changes that are only planned. Never writes. Not part of the interface.
// Used by one thread.
class CardBytes {
 public:
  // Bytes that are to stand at places of the card, none over another.
  using Changes = std::map<uint64_t, std::vector<uint8_t>>;

  // 0, or -1 with the reason in *error: it cannot be opened, or does not say how large it is.
  int open(const std::string& path, std::string* error);

  uint64_t size() const { return size_; }
  bool holds(uint64_t offset, uint64_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }
  // False when the device refuses, also when asked again a few times, as long as this object's
  // patience (2 s in all) lasts; and for bytes behind the card's end.
  bool read(uint64_t offset, void* out, size_t length) const;

  // From now on reads give these bytes where they lie.
  void plan(uint64_t offset, std::vector<uint8_t> bytes) { changes_[offset] = std::move(bytes); }
  const Changes& changes() const { return changes_; }
  void setChanges(Changes changes) { changes_ = std::move(changes); }

 private:
  void cover(uint64_t offset, uint8_t* out, size_t length) const;

  UniqueFd fd_;
  uint64_t size_ = 0;
  mutable uint32_t patienceMs_ = kReadPatienceMs;
  Changes changes_;
};

}  // namespace tarn
