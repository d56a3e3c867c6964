// The checksum of journal records (28 bytes) and of large blocks against a table of single bytes.
#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "Pair.h"
#include "base/Crc16.h"

namespace {

std::array<uint16_t, 256> makeTable() {
  std::array<uint16_t, 256> table{};
  for (unsigned value = 0; value < 256; ++value) {
    unsigned crc = value << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000u) != 0 ? (crc << 1) ^ 0x1021u : crc << 1;
    table[value] = static_cast<uint16_t>(crc);
  }
  return table;
}

__attribute__((noinline)) uint16_t byteTableCrc(const uint8_t* data, size_t length) {
  static const std::array<uint16_t, 256> table = makeTable();
  uint16_t crc = 0;
  for (size_t i = 0; i < length; ++i) {
    crc = static_cast<uint16_t>(table[((crc >> 8) ^ data[i]) & 0xFF] ^ (crc << 8));
  }
  return crc;
}

constexpr size_t kBytes = 512 * 1024;  // less than a time slice
constexpr int kAttempts = 8;           // of which the best is a turn's

template <typename Crc>
double overAll(const std::vector<uint8_t>& data, size_t length, Crc crc) {
  volatile uint16_t sink = 0;
  double best = 1;
  for (int i = 0; i < kAttempts; ++i) {
    best = std::min(best, bench::timed([&] {
                      for (size_t done = 0; done < kBytes; done += length) {
                        sink = static_cast<uint16_t>(
                            sink ^ crc(data.data() + done % (data.size() - length), length));
                      }
                    }));
  }
  return best;
}

std::unique_ptr<bench::Rig> crcOf(size_t length) {
  auto data = std::make_shared<std::vector<uint8_t>>(64 * 1024);
  for (size_t i = 0; i < data->size(); ++i) (*data)[i] = static_cast<uint8_t>(i * 31 + (i >> 8));
  if (tarn::crc16(data->data(), length) != byteTableCrc(data->data(), length)) {
    bench::give_up("the two checksums differ");
  }
  return bench::rig(
      [data, length] {
        return overAll(*data, length,
                       [](const uint8_t* at, size_t size) { return tarn::crc16(at, size); });
      },
      [data, length] { return overAll(*data, length, byteTableCrc); });
}

const bool kSmall =
    bench::add({"crc", "crc/28_bytes", bench::Goal::kSpeed, 3.5, 11, [] { return crcOf(28); }});
const bool kLarge =
    bench::add({"crc", "crc/4_KiB", bench::Goal::kSpeed, 6, 11, [] { return crcOf(4096); }});

}  // namespace
