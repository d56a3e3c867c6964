#include "Content.h"

#include <cstddef>

namespace faults {
namespace {

constexpr uint8_t kKeyHead[] = {0, 0, 0, 1, 0x65};
constexpr uint8_t kOtherHead[] = {0, 0, 0, 1, 0x41};
constexpr size_t kHead = sizeof kKeyHead;
constexpr size_t kDigits = 8;
constexpr uint32_t kStart = 1700000000;  // seconds
constexpr uint32_t kSessionSeconds = 600;

}  // namespace

std::vector<uint8_t> pictureBytes(const Stamp& stamp) {
  const bool key = isKeyPicture(stamp.index);
  const uint8_t* head = key ? kKeyHead : kOtherHead;
  std::vector<uint8_t> bytes(head, head + kHead);
  // Four bits in a byte, so that none of them is part of a start code.
  for (const uint32_t value : {stamp.session, stamp.channel, stamp.index}) {
    for (int shift = 28; shift >= 0; shift -= 4)
      bytes.push_back(static_cast<uint8_t>(0x10 | ((value >> shift) & 0xF)));
  }
  uint32_t noise = stamp.session * 7919 + stamp.channel * 104729 + stamp.index;
  const size_t size = (key ? 1500 : 400) + stamp.index * 37 % 600;
  while (bytes.size() < size) {
    noise = noise * 1664525u + 1013904223u;
    bytes.push_back(static_cast<uint8_t>(noise >> 24 | 2));
  }
  return bytes;
}

tarn::PictureTime pictureTime(uint32_t session, uint32_t index) {
  constexpr int64_t kMicros = 1000000;
  return tarn::PictureTime::fromMicros((int64_t{kStart} + int64_t{session} * kSessionSeconds) *
                                           kMicros +
                                       int64_t{index} * kMicros / kRate);
}

bool readStamp(const std::vector<uint8_t>& bytes, Stamp* stamp) {
  if (bytes.size() < kHead + 3 * kDigits) return false;
  const uint8_t* in = bytes.data() + kHead;
  for (uint32_t* value : {&stamp->session, &stamp->channel, &stamp->index}) {
    *value = 0;
    for (size_t i = 0; i < kDigits; ++i) *value = *value << 4 | (*in++ & 0xFU);
  }
  return true;
}

}  // namespace faults
