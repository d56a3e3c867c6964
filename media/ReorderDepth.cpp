#include "media/ReorderDepth.h"

#include <algorithm>
#include <vector>

namespace tarn {
namespace {

// Bits of a unit without the bytes that keep start codes out of it.
class Bits {
 public:
  Bits(const uint8_t* unit, size_t size) {
    unsigned zeros = 0;
    for (size_t i = 1; i < size; ++i) {  // behind the type
      const bool prevention = zeros >= 2 && unit[i] == 3;
      zeros = unit[i] == 0 ? zeros + 1 : 0;
      if (!prevention) bytes_.push_back(unit[i]);
    }
  }

  uint32_t bit() {
    if (at_ >= bytes_.size() * 8) {
      good_ = false;
      return 0;
    }
    const uint32_t value = uint32_t{bytes_[at_ / 8]} >> (7 - at_ % 8) & 1u;
    ++at_;
    return value;
  }
  uint32_t bits(unsigned count) {
    uint32_t value = 0;
    while (count-- > 0) value = value << 1 | bit();
    return value;
  }
  // Exponential Golomb code without a sign.
  uint32_t code() {
    unsigned zeros = 0;
    while (zeros < 32 && good_ && bit() == 0) ++zeros;
    if (zeros == 32) good_ = false;
    return good_ ? (uint32_t{1} << zeros) - 1 + bits(zeros) : 0;
  }
  // The same with one.
  int64_t signedCode() {
    const int64_t value = code();
    return value % 2 != 0 ? (value + 1) / 2 : -(value / 2);
  }
  bool good() const { return good_; }

 private:
  std::vector<uint8_t> bytes_;
  size_t at_ = 0;
  bool good_ = true;
};

void skipScalingList(Bits* bits, int count) {
  int64_t last = 8;
  int64_t next = 8;
  for (int i = 0; i < count && bits->good(); ++i) {
    if (next != 0) next = (last + bits->signedCode() + 256) % 256;
    if (next != 0) last = next;
  }
}

void skipChroma(Bits* bits, uint32_t profile) {
  static constexpr uint32_t kProfiles[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134};
  if (std::find(std::begin(kProfiles), std::end(kProfiles), profile) == std::end(kProfiles)) return;
  const uint32_t format = bits->code();
  if (format == 3) bits->bit();
  bits->code();  // bits of a luma sample
  bits->code();  // of a chroma sample
  bits->bit();
  if (bits->bit() == 0) return;
  for (int i = 0; i < (format == 3 ? 12 : 8); ++i) {
    if (bits->bit() != 0) skipScalingList(bits, i < 6 ? 16 : 64);
  }
}

// The type of the picture order count.
uint32_t readOrderType(Bits* bits) {
  const uint32_t type = bits->code();
  if (type == 0) bits->code();
  if (type != 1) return type;
  bits->bit();
  bits->signedCode();
  bits->signedCode();
  const uint32_t cycle = bits->code();
  for (uint32_t i = 0; i < std::min(cycle, 255u); ++i) bits->signedCode();
  return type;
}

void skipDecoderModel(Bits* bits) {
  const uint32_t count = bits->code() + 1;
  bits->bits(8);
  for (uint32_t i = 0; i < std::min(count, 32u); ++i) {
    bits->code();
    bits->code();
    bits->bit();
  }
  bits->bits(20);
}

// Two fields make a picture, also where they come as one.
double readPictureRate(Bits* bits) {
  const uint32_t units = bits->bits(32);
  const uint32_t scale = bits->bits(32);
  bits->bit();
  return units == 0 || !bits->good() ? 0 : static_cast<double>(scale) / units / 2;
}

// The usability information up to its restrictions. False where it has none.
bool skipToRestrictions(Bits* bits, double* pictureRate) {
  constexpr uint32_t kExtendedRatio = 255;
  if (bits->bit() != 0 && bits->bits(8) == kExtendedRatio) bits->bits(32);
  if (bits->bit() != 0) bits->bit();  // overscan
  if (bits->bit() != 0) {             // video signal
    bits->bits(4);
    if (bits->bit() != 0) bits->bits(24);
  }
  if (bits->bit() != 0) {  // chroma location
    bits->code();
    bits->code();
  }
  if (bits->bit() != 0) *pictureRate = readPictureRate(bits);
  const bool network = bits->bit() != 0;
  if (network) skipDecoderModel(bits);
  const bool video = bits->bit() != 0;
  if (video) skipDecoderModel(bits);
  if (network || video) bits->bit();
  bits->bit();
  return bits->bit() != 0;
}

}  // namespace

ReorderDepth reorderDepthOf(const uint8_t* sps, size_t size) {
  Bits bits(sps, size);
  const uint32_t profile = bits.bits(8);
  bits.bits(16);  // constraints and level
  bits.code();
  skipChroma(&bits, profile);
  bits.code();  // frame numbers
  const uint32_t orderType = readOrderType(&bits);
  bits.code();  // reference frames
  bits.bit();
  bits.code();  // width
  bits.code();  // height
  const bool frames = bits.bit() != 0;
  if (!frames) bits.bit();
  bits.bit();
  if (bits.bit() != 0) {  // cropping
    for (int i = 0; i < 4; ++i) bits.code();
  }
  ReorderDepth depth;
  if (bits.bit() != 0 && skipToRestrictions(&bits, &depth.pictureRate)) {
    bits.bit();
    for (int i = 0; i < 4; ++i) bits.code();
    const uint32_t most = bits.code();
    if (most <= ReorderDepth::kMost) {
      depth.most = most;
      depth.told = true;
    }
  }
  if (!bits.good()) {
    depth = ReorderDepth{ReorderDepth::kMost, false, depth.pictureRate};
  }
  if (orderType == 2) {
    depth.most = 0;
    depth.told = true;
  }
  // Each field of a frame may come as a picture of its own.
  if (!frames) depth.most = std::min(2 * depth.most, ReorderDepth::kMost);
  return depth;
}

}  // namespace tarn
