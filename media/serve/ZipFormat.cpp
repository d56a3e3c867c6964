#include "media/serve/ZipFormat.h"

#include <algorithm>
#include <ctime>

#include "base/Endian.h"

namespace tarn {
namespace {

constexpr uint32_t kHeaderMark = 0x04034B50;
constexpr uint32_t kListedMark = 0x02014B50;
constexpr uint32_t kEndMark = 0x06054B50;
constexpr uint32_t kEnd64Mark = 0x06064B50;
constexpr uint32_t kPlace64Mark = 0x07064B50;
constexpr uint32_t kInZip64 = 0xFFFFFFFF;
constexpr uint16_t kCountInZip64 = 0xFFFF;
constexpr uint16_t kZip64Extra = 0x0001;
constexpr uint16_t kPlainVersion = 20;
constexpr uint16_t kZip64Version = 45;
constexpr uint16_t kNamesAreUtf8 = 0x0800;
constexpr uint16_t kMadeOnUnix = 3 << 8;
constexpr uint32_t kPlainFile = 0100644u << 16;
constexpr uint64_t kEnd64Behind = 44;  // bytes of it behind its own size

class Bytes {
 public:
  Bytes& two(uint64_t value) { return add<2>(putLe16, static_cast<uint16_t>(value)); }
  Bytes& four(uint64_t value) { return add<4>(putLe32, static_cast<uint32_t>(value)); }
  Bytes& eight(uint64_t value) { return add<8>(putLe64, value); }
  Bytes& text(const std::string& value) {
    all_ += value;
    return *this;
  }
  const std::string& all() const { return all_; }

 private:
  template <size_t kSize, class Put, class Value>
  Bytes& add(Put put, Value value) {
    char bytes[kSize];
    put(bytes, value);
    all_.append(bytes, kSize);
    return *this;
  }

  std::string all_;
};

uint64_t in32(uint64_t value) { return std::min<uint64_t>(value, kInZip64); }

uint32_t timeOf(int64_t seconds) {
  const auto at = static_cast<time_t>(seconds);
  struct tm local = {};
  localtime_r(&at, &local);
  const uint32_t year = static_cast<uint32_t>(std::clamp(local.tm_year - 80, 0, 127));
  const auto part = [](int value, int shift) { return static_cast<uint32_t>(value) << shift; };
  return year << 25 | part(local.tm_mon + 1, 21) | part(local.tm_mday, 16) |
         part(local.tm_hour, 11) | part(local.tm_min, 5) | static_cast<uint32_t>(local.tm_sec / 2);
}

bool isLarge(const ZipEntry& entry) { return entry.size >= kInZip64; }

// What both headers of a file say alike, from the version that is needed on.
void addFile(Bytes* out, const ZipEntry& entry, bool zip64, size_t extra) {
  out->two(zip64 ? kZip64Version : kPlainVersion).two(kNamesAreUtf8).two(0);
  out->four(timeOf(entry.time)).four(entry.crc).four(in32(entry.size)).four(in32(entry.size));
  out->two(entry.name.size()).two(extra);
}

}  // namespace

std::string zipHeader(const ZipEntry& entry) {
  Bytes extra;
  if (isLarge(entry)) extra.two(kZip64Extra).two(16).eight(entry.size).eight(entry.size);
  Bytes out;
  out.four(kHeaderMark);
  addFile(&out, entry, isLarge(entry), extra.all().size());
  return out.text(entry.name).text(extra.all()).all();
}

std::string zipListed(const ZipEntry& entry) {
  Bytes fields;
  if (isLarge(entry)) fields.eight(entry.size).eight(entry.size);
  if (entry.offset >= kInZip64) fields.eight(entry.offset);
  Bytes extra;
  const bool zip64 = !fields.all().empty();
  if (zip64) extra.two(kZip64Extra).two(fields.all().size()).text(fields.all());
  Bytes out;
  out.four(kListedMark).two(kMadeOnUnix | kZip64Version);
  addFile(&out, entry, zip64, extra.all().size());
  out.two(0).two(0).two(0).four(kPlainFile).four(in32(entry.offset));
  return out.text(entry.name).text(extra.all()).all();
}

std::string zipEnd(uint64_t files, uint64_t listOffset, uint64_t listSize) {
  Bytes out;
  if (files >= kCountInZip64 || listOffset >= kInZip64 || listSize >= kInZip64) {
    out.four(kEnd64Mark).eight(kEnd64Behind).two(kMadeOnUnix | kZip64Version).two(kZip64Version);
    out.four(0).four(0).eight(files).eight(files).eight(listSize).eight(listOffset);
    out.four(kPlace64Mark).four(0).eight(listOffset + listSize).four(1);
  }
  const uint64_t count = std::min<uint64_t>(files, kCountInZip64);
  out.four(kEndMark).two(0).two(0).two(count).two(count);
  return out.four(in32(listSize)).four(in32(listOffset)).two(0).all();
}

}  // namespace tarn
