#include "support/CardImage.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/RawCalls.h"

namespace tarn_test {
namespace {

constexpr uint64_t kSector = 512;
constexpr uint64_t kBoundary = 64 * kKiB;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error("card image: " + what + ": " + strerror(errno));
}

uint64_t upTo(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Little-endian numbers, put by hand so that the card does not depend on what it tests.
void put(std::vector<uint8_t>& bytes, size_t at, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

uint16_t bitwiseCrc(const std::vector<uint8_t>& bytes) {
  uint32_t crc = 0;
  for (uint8_t byte : bytes) {
    crc ^= static_cast<uint32_t>(byte) << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
  }
  return static_cast<uint16_t>(crc);
}

int clusterOf(const CardLayout& layout) {
  // Behind a root directory of at least 511 entries.
  const auto rootClusters = static_cast<int>(upTo(16384, layout.clusterSectors * kSector) /
                                             (layout.clusterSectors * kSector));
  const int plain = static_cast<int>(layout.rootCluster) + rootClusters;
  const uint16_t high = layout.infoClusterHigh.value_or(static_cast<uint16_t>(plain >> 16));
  const uint16_t low = layout.infoClusterLow.value_or(static_cast<uint16_t>(plain));
  return static_cast<int16_t>(high) * 65536 + static_cast<int16_t>(low);
}

}  // namespace

std::vector<uint8_t> patternBytes(size_t length, uint32_t seed) {
  std::vector<uint8_t> bytes(length);
  uint32_t state = seed * 2654435761u + 1;
  for (uint8_t& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

CardImage::CardImage(const CardLayout& layout, const std::string& path)
    : path_(path), families_(layout.families) {
  fd_ = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(),
                                 O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_LARGEFILE, 0600));
  if (fd_ < 0) fail("open " + path);
  layOut(layout);
  truncate(size_);
  if (layout.fillUndefined) fill(0, size_, 0xCC);
  writeFormat(layout);
}

CardImage::~CardImage() {
  if (fd_ >= 0) syscall(SYS_close, fd_);
  syscall(SYS_unlinkat, AT_FDCWD, path_.c_str(), 0);
}

void CardImage::layOut(const CardLayout& layout) {
  const uint64_t dataSector = uint64_t{layout.fat32Size} * layout.fatCount + layout.reservedSectors;
  rootOffset_ = dataSector * kSector;
  const int64_t infoSector =
      (int64_t{clusterOf(layout)} - int64_t{layout.rootCluster}) * layout.clusterSectors +
      static_cast<int64_t>(dataSector);
  // A cluster in front of the device leads nowhere; the file then stays unwritten.
  infoOffset_ = infoSector < 0 ? UINT64_MAX : static_cast<uint64_t>(infoSector) * kSector;
  uint64_t next = rootOffset_ + 16384;
  if (infoSector >= 0) {
    next = std::max(next, infoOffset_ + 4 + std::max<uint64_t>(layout.infoLength, 756));
    if (layout.infoLength > kMiB) next = infoOffset_ + kBoundary;  // a lie, not a size
  }
  for (size_t type = 0; type < families_.size(); ++type) {
    CardFamily& family = families_[type];
    if (type == 0 && family.startSector == 0) {
      family.startSector = static_cast<uint32_t>(infoSector);
      continue;
    }
    if (family.startSector == 0) {
      family.startSector = static_cast<uint32_t>(upTo(next, kBoundary) / kSector);
    }
    next = std::max(next, chunkStart(static_cast<int>(type), static_cast<int>(family.count)));
  }
  size_ = upTo(next, kSector) + layout.tailBytes;
}

void CardImage::writeFormat(const CardLayout& layout) {
  std::vector<uint8_t> boot(kSector);
  put(boot, 13, layout.clusterSectors, 1);
  put(boot, 14, layout.reservedSectors, 2);
  put(boot, 16, layout.fatCount, 1);
  put(boot, 22, layout.fat16Size, 2);
  put(boot, 36, layout.fat32Size, 4);
  put(boot, 44, layout.rootCluster, 4);
  put(boot, 510, 0xAA55, 2);
  write(0, boot);

  std::vector<uint8_t> root(16384);
  std::vector<ChunkFile> files =
      layout.infoEntry < 0 ? std::vector<ChunkFile>() : chunkFiles(layout);
  size_t next = 0;
  for (int i = 0; i < 512; ++i) {
    std::vector<uint8_t> entry(32, 0);
    const bool isFile = i != layout.infoEntry && next < files.size();
    const std::string name = i == layout.infoEntry ? "TAIF0000   "
                             : isFile              ? files[next].name + "   "
                                                   : "OTHER      ";
    std::copy(name.begin(), name.end(), entry.begin());
    const auto cluster = isFile ? files[next].cluster : static_cast<uint32_t>(clusterOf(layout));
    const auto high = static_cast<uint16_t>(cluster >> 16);
    const auto low = static_cast<uint16_t>(cluster);
    put(entry, 20, isFile ? high : layout.infoClusterHigh.value_or(high), 2);
    put(entry, 26, isFile ? low : layout.infoClusterLow.value_or(low), 2);
    if (isFile) put(entry, 28, files[next++].size, 4);
    std::copy(entry.begin(), entry.end(), root.begin() + i * 32);
  }
  write(rootOffset_, root);
  writeFats(layout, files);

  if (infoOffset_ == UINT64_MAX) return;
  std::vector<uint8_t> info(4 + 756, 0xEE);
  put(info, 0, layout.infoLength, 4);
  for (size_t type = 0; type < families_.size(); ++type) {
    put(info, 4 + type * 84 + 64, families_[type].chunkSize, 4);
    put(info, 4 + type * 84 + 72, families_[type].count, 4);
    put(info, 4 + type * 84 + 80, families_[type].startSector, 4);
  }
  write(infoOffset_, info);
}

std::vector<CardImage::ChunkFile> CardImage::chunkFiles(const CardLayout& layout) const {
  const uint64_t clusterBytes = layout.clusterSectors * kSector;
  std::vector<ChunkFile> files;
  for (int type = 1; type < 9 && clusterBytes != 0; ++type) {
    const uint32_t count = std::min<uint32_t>(family(type).count, 512);
    for (uint32_t n = 0; n < count; ++n) {
      char name[16];
      snprintf(name, sizeof name, "%s%04u", tarn::fileTag(type), n);
      const uint64_t start = chunkStart(type, static_cast<int>(n));
      if (start < rootOffset_) continue;
      const uint64_t cluster = (start - rootOffset_) / clusterBytes + layout.rootCluster;
      files.push_back({name, static_cast<uint32_t>(cluster), family(type).chunkSize});
    }
  }
  return files;
}

// The true chain of each file in each FAT, as far as the FAT reaches.
void CardImage::writeFats(const CardLayout& layout, const std::vector<ChunkFile>& files) {
  const uint64_t fatBytes = layout.fat32Size * kSector;
  if (files.empty() || fatBytes > 4 * kMiB) return;
  std::vector<uint8_t> fat(static_cast<size_t>(fatBytes));
  const uint64_t clusterBytes = layout.clusterSectors * kSector;
  const auto chain = [&](uint64_t first, uint64_t bytes) {
    const uint64_t count = (bytes + clusterBytes - 1) / clusterBytes;
    for (uint64_t i = 0; i < count && (first + i + 1) * 4 <= fatBytes; ++i) {
      put(fat, (first + i) * 4, i + 1 < count ? first + i + 1 : 0x0FFFFFFF, 4);
    }
  };
  chain(layout.rootCluster, 16384);
  chain(static_cast<uint32_t>(clusterOf(layout)), family(0).chunkSize);
  for (const ChunkFile& file : files) chain(file.cluster, file.size);
  for (uint64_t n = 0; n < layout.fatCount; ++n) {
    write(layout.reservedSectors * kSector + n * fatBytes, fat);
  }
}

uint64_t CardImage::chunkStart(int type, int n) const {
  const CardFamily& f = family(type);
  return static_cast<uint64_t>(int64_t{f.startSector} * 512 + int64_t{n} * f.chunkSize);
}

std::string CardImage::name(int type, int n) const {
  char digits[16];
  snprintf(digits, sizeof digits, "%04d", n);
  return path_ + ":" + tarn::fileTag(type) + digits;
}

std::vector<uint8_t> CardImage::read(uint64_t offset, size_t length) const {
  std::vector<uint8_t> bytes(length);
  for (size_t done = 0; done < length;) {
    const ssize_t got =
        rawPread(fd_, bytes.data() + done, length - done, static_cast<int64_t>(offset + done));
    if (got < 0) fail("read");
    if (got == 0) throw std::runtime_error("card image: read behind its end");
    done += static_cast<size_t>(got);
  }
  return bytes;
}

void CardImage::write(uint64_t offset, const void* bytes, size_t length) {
  const auto* data = static_cast<const uint8_t*>(bytes);
  for (size_t done = 0; done < length;) {
    const ssize_t put =
        rawPwrite(fd_, data + done, length - done, static_cast<int64_t>(offset + done));
    if (put <= 0) fail("write");
    done += static_cast<size_t>(put);
  }
}

void CardImage::write(uint64_t offset, const std::vector<uint8_t>& bytes) {
  write(offset, bytes.data(), bytes.size());
}

void CardImage::fill(uint64_t offset, uint64_t length, uint8_t byte) {
  const std::vector<uint8_t> block(static_cast<size_t>(std::min<uint64_t>(length, kMiB)), byte);
  for (uint64_t done = 0; done < length; done += block.size()) {
    write(offset + done, block.data(),
          static_cast<size_t>(std::min<uint64_t>(block.size(), length - done)));
  }
}

std::vector<uint8_t> CardImage::readChunk(int type, int n, uint64_t offset, size_t length) const {
  return read(chunkStart(type, n) + offset, length);
}

void CardImage::writeChunk(int type, int n, uint64_t offset, const std::vector<uint8_t>& bytes) {
  write(chunkStart(type, n) + offset, bytes);
}

void CardImage::truncate(uint64_t size) {
  if (rawTruncate(fd_, static_cast<int64_t>(size)) != 0) fail("truncate");
  size_ = size;
}

void CardImage::writeManagement(int manageType, int copy, const std::vector<uint8_t>& records) {
  std::vector<uint8_t> bytes = records;
  const uint16_t crc = bitwiseCrc(records);
  bytes.push_back(static_cast<uint8_t>(crc));
  bytes.push_back(static_cast<uint8_t>(crc >> 8));
  writeChunk(manageType, copy, 0, bytes);
}

void CardImage::initManagement() {
  const std::pair<int, int> kinds[] = {{tarn::kFileJournalManage, tarn::kFileJournal},
                                       {tarn::kFileSyslogManage, tarn::kFileSyslog},
                                       {tarn::kFileStreamManage, tarn::kFileStream}};
  for (const auto& [manage, chunks] : kinds) {
    std::vector<uint8_t> records(24 * size_t{family(chunks).count}, 0);
    if (chunks == tarn::kFileStream) {
      for (size_t at = 6; at < records.size(); at += 24) records[at] = 0xFF;
    }
    for (uint32_t copy = 0; copy < family(manage).count && copy < 2; ++copy) {
      writeManagement(manage, static_cast<int>(copy), records);
    }
  }
  for (int type : {tarn::kFileJournal, tarn::kFileSyslog}) {
    fill(chunkStart(type, 0), uint64_t{family(type).count} * family(type).chunkSize, 0xFF);
  }
  if (family(tarn::kFileDbImage).count > 0) {
    writeChunk(tarn::kFileDbImage, 0, 0, std::vector<uint8_t>(4, 0));
  }
}

}  // namespace tarn_test
