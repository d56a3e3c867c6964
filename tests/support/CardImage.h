#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fat/ChunkFiles.h"

namespace tarn_test {

inline constexpr char kCardPath[] = "/dev/sdblk0p1";
inline constexpr uint32_t kKiB = 1024;
inline constexpr uint32_t kMiB = 1024 * 1024;

// One family of chunks. startSector 0 means: laid out behind the families before it, on the next
// 64 KiB of the device.
struct CardFamily {
  uint32_t chunkSize = 0;
  uint32_t count = 0;
  uint32_t startSector = 0;
};

// Everything that a test may want to be odd about a card; the defaults make a good one.
struct CardLayout {
  uint8_t clusterSectors = 8;
  uint16_t reservedSectors = 32;
  uint8_t fatCount = 2;
  uint16_t fat16Size = 0;
  uint32_t fat32Size = 64;
  uint32_t rootCluster = 2;
  // Place of TAIF0000 among the 32-byte entries of the root directory; -1: not there.
  int infoEntry = 0;
  // Cluster halves of its entry. The info file is put where the signed reading of them leads.
  std::optional<uint16_t> infoClusterHigh;
  std::optional<uint16_t> infoClusterLow;
  // The length word of the info file. All nine records are there in any case.
  uint32_t infoLength = 756;
  // Fill everything that is not defined with 0xCC, so that stray writes show; else it stays sparse.
  bool fillUndefined = true;
  // Bytes behind the last chunk.
  uint64_t tailBytes = 0;
  // By tarn::FileType.
  std::array<CardFamily, 9> families = {{
      {4096, 1, 0},        // TAIF; its start sector is the info file's own
      {64 * kKiB, 2, 0},   // MGDL
      {64 * kKiB, 4, 0},   // CKDL
      {64 * kKiB, 2, 0},   // MGSL
      {64 * kKiB, 5, 0},   // CKSL
      {1 * kMiB, 1, 0},    // DBST
      {64 * kKiB, 2, 0},   // MGST
      {4 * kMiB, 4, 0},    // CKST
      {256 * kKiB, 4, 0},  // CKPC
  }};
};

// A small card in a plain file, with a directory entry and a cluster chain for each chunk file (as
// far as 511 entries and the FATs reach), made by its constructor and removed by its destructor.
// Reads and writes bypass IoFaults, so a test that looks at its card does not disturb what it
// counts. Throws std::runtime_error when the file cannot be made or reached.
class CardImage {
 public:
  explicit CardImage(const CardLayout& layout = {}, const std::string& path = kCardPath);
  ~CardImage();
  CardImage(const CardImage&) = delete;
  CardImage& operator=(const CardImage&) = delete;

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }
  uint64_t infoOffset() const { return infoOffset_; }
  uint64_t rootOffset() const { return rootOffset_; }
  const CardFamily& family(int type) const { return families_[static_cast<size_t>(type)]; }
  uint64_t chunkStart(int type, int n) const;
  // "/dev/sdblk0p1:CKST0002", whatever path the image has in front.
  std::string name(int type, int n) const;

  std::vector<uint8_t> read(uint64_t offset, size_t length) const;
  void write(uint64_t offset, const std::vector<uint8_t>& bytes);
  void write(uint64_t offset, const void* bytes, size_t length);
  void fill(uint64_t offset, uint64_t length, uint8_t byte);
  // The same relative to a chunk's first byte.
  std::vector<uint8_t> readChunk(int type, int n, uint64_t offset, size_t length) const;
  void writeChunk(int type, int n, uint64_t offset, const std::vector<uint8_t>& bytes);
  void truncate(uint64_t size);

  // Writes good management files, main and backup: stream chunks chType -1, syslog chunk 0 chType
  // 0, everything else zero, CRC behind; fills journals and syslog with 0xFF and sets the database
  // image's size to 0.
  void initManagement();
  // Writes `records` (24 bytes each) and their CRC to one management file; copy 0 main, 1 backup.
  void writeManagement(int manageType, int copy, const std::vector<uint8_t>& records);

 private:
  struct ChunkFile {
    std::string name;
    uint32_t cluster;
    uint32_t size;
  };

  void layOut(const CardLayout& layout);
  void writeFormat(const CardLayout& layout);
  std::vector<ChunkFile> chunkFiles(const CardLayout& layout) const;
  void writeFats(const CardLayout& layout, const std::vector<ChunkFile>& files);

  std::string path_;
  int fd_ = -1;
  uint64_t size_ = 0;
  uint64_t rootOffset_ = 0;
  uint64_t infoOffset_ = 0;
  std::array<CardFamily, 9> families_;
};

// `length` bytes that differ from place to place and from seed to seed.
std::vector<uint8_t> patternBytes(size_t length, uint32_t seed = 1);

}  // namespace tarn_test
