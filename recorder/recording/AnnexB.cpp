#include "recorder/recording/AnnexB.h"

#include <cstring>
#include <ctime>
#include <initializer_list>

namespace tarn {
namespace {

// Ours alone, so that no other encoder's unit is taken for it; free of zero bytes.
constexpr uint8_t kSeiHead[] = {0x00, 0x00, 0x00, 0x01, 0x66, 0x05, 0x2A,  //
                                0x9D, 0x3B, 0x71, 0xC4, 0x5E, 0x18, 0x4F, 0xA6,
                                0xB2, 0x6D, 0x54, 0x61, 0x72, 0x6E, 0x54, 0x53};
constexpr char kSeiText[] = "timestamp = ";
constexpr size_t kSeiTextSize = sizeof kSeiText - 1;
constexpr size_t kSeiDigits = 14;
constexpr uint8_t kSeiStopBits = 0x80;
static_assert(sizeof kSeiHead + kSeiTextSize + kSeiDigits + 1 == kTimeStampSeiSize);

// Position of the next 00 00 01 at or behind `from`; size when there is none.
size_t findStartCode(const uint8_t* data, size_t size, size_t from) {
  while (size - from >= 3) {
    const auto* one = static_cast<const uint8_t*>(memchr(data + from + 2, 1, size - from - 2));
    if (one == nullptr) break;
    const auto at = static_cast<size_t>(one - data);
    if (data[at - 1] == 0 && data[at - 2] == 0) return at - 2;
    from = at - 1;
  }
  return size;
}

void putDigits(uint8_t* out, int value, int digits) {
  for (int i = digits - 1; i >= 0; --i, value /= 10)
    out[i] = static_cast<uint8_t>('0' + value % 10);
}

bool isTimeStampSei(const uint8_t* data, size_t size) {
  if (size < kTimeStampSeiSize || memcmp(data, kSeiHead, sizeof kSeiHead) != 0) return false;
  const uint8_t* text = data + sizeof kSeiHead;
  if (memcmp(text, kSeiText, kSeiTextSize) != 0) return false;
  for (size_t i = 0; i < kSeiDigits; ++i) {
    if (text[kSeiTextSize + i] < '0' || text[kSeiTextSize + i] > '9') return false;
  }
  return data[kTimeStampSeiSize - 1] == kSeiStopBits;
}

// Behind a delimiter that begins the picture, before zero bytes that follow it; 0 without one. Only
// the window is looked at: the place does not depend on what lies further behind.
size_t behindDelimiter(const uint8_t* data, size_t size) {
  const size_t limit = size < kTimeStampWindow ? size : kTimeStampWindow;
  const size_t begin = findStartCode(data, limit, 0);
  if (limit - begin < 4 || (data[begin + 3] & 0x1F) != kNalDelimiter) return 0;
  for (size_t i = 0; i < begin; ++i) {
    if (data[i] != 0) return 0;
  }
  size_t end = findStartCode(data, limit, begin + 3);
  while (data[end - 1] == 0) --end;
  return end <= kTimeStampWindow - kTimeStampSeiSize ? end : 0;
}

}  // namespace

NalScanner::NalScanner(const void* data, size_t size)
    : data_(static_cast<const uint8_t*>(data)), size_(size), next_(findStartCode(data_, size, 0)) {}

bool NalScanner::next(NalUnit* out) {
  if (next_ >= size_) return false;
  const size_t begin = next_ + 3;
  const size_t end = findStartCode(data_, size_, begin);
  size_t last = end;
  while (last > begin && data_[last - 1] == 0) --last;
  *out = {data_ + begin, last - begin, next_};
  next_ = end;
  return true;
}

bool isKeyPicture(const void* annexB, size_t size) {
  NalScanner scanner(annexB, size);
  NalUnit unit;
  while (scanner.next(&unit)) {
    if (unit.type() == kNalIdr) return true;
    if (unit.type() >= 1 && unit.type() < kNalIdr) return false;  // a picture is all IDR or none
  }
  return false;
}

bool findParameterSets(const void* annexB, size_t size, NalUnit* sps, NalUnit* pps) {
  *sps = NalUnit();
  *pps = NalUnit();
  NalScanner scanner(annexB, size);
  NalUnit unit;
  while ((sps->size == 0 || pps->size == 0) && scanner.next(&unit)) {
    if (unit.type() == kNalSps && sps->size == 0) *sps = unit;
    if (unit.type() == kNalPps && pps->size == 0) *pps = unit;
  }
  return sps->size != 0 && pps->size != 0;
}

void makeTimeStampSei(uint32_t seconds, uint8_t* out) {
  const auto time = static_cast<time_t>(seconds);
  struct tm local = {};
  localtime_r(&time, &local);
  memcpy(out, kSeiHead, sizeof kSeiHead);
  uint8_t* text = out + sizeof kSeiHead;
  memcpy(text, kSeiText, kSeiTextSize);
  text += kSeiTextSize;
  putDigits(text, local.tm_year + 1900, 4);
  putDigits(text + 4, local.tm_mon + 1, 2);
  putDigits(text + 6, local.tm_mday, 2);
  putDigits(text + 8, local.tm_hour, 2);
  putDigits(text + 10, local.tm_min, 2);
  putDigits(text + 12, local.tm_sec, 2);
  text[kSeiDigits] = kSeiStopBits;
}

size_t timeStampSeiPlace(const void* annexB, size_t size) {
  return behindDelimiter(static_cast<const uint8_t*>(annexB), size);
}

bool findTimeStampSei(const void* annexB, size_t size, size_t* place) {
  const auto* data = static_cast<const uint8_t*>(annexB);
  // The unit ends a delimiter in front of it, so its place is found by the rule that chose it.
  for (const size_t at : {size_t{0}, behindDelimiter(data, size)}) {
    if (!isTimeStampSei(data + at, size - at)) continue;
    *place = at;
    return true;
  }
  return false;
}

size_t removeTimeStampSei(uint8_t* annexB, size_t size) {
  size_t place = 0;
  if (!findTimeStampSei(annexB, size, &place)) return size;
  memmove(annexB + place, annexB + place + kTimeStampSeiSize, size - place - kTimeStampSeiSize);
  return size - kTimeStampSeiSize;
}

}  // namespace tarn
