#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// The bytes of a card that is looked at and never changed, wherever they come from: there is no way
// to write. Used by one thread.
class CardOriginal {
 public:
  CardOriginal() = default;
  virtual ~CardOriginal() = default;
  CardOriginal(const CardOriginal&) = delete;
  CardOriginal& operator=(const CardOriginal&) = delete;

  virtual uint64_t size() const = 0;  // bytes
  // `length` bytes at `offset`, asked once. False when any of them is refused or lies behind the
  // end; `out` then holds nothing of use. What is refused is not replaced by anything.
  virtual bool read(uint64_t offset, void* out, size_t length) = 0;
};

}  // namespace tarn
