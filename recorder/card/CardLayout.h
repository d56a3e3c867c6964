#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "fat/ChunkFiles.h"

namespace tarn {

// What is wanted of a family of chunk files; 0 leaves the choice to the layout.
struct CardFamilyRequest {
  uint64_t chunkSize = 0;  // bytes
  uint64_t chunks = 0;
};

// What is wanted of a card. Everything but the size may be left as it is.
struct CardRequest {
  uint64_t sizeBytes = 0;
  std::string profile = "default";  // one of CardLayout::profiles()
  uint32_t clusterBytes = 0;        // 0: the largest up to 32 KiB that FAT32 allows at this size
  std::array<CardFamilyRequest, kFileTypeCount> families{};  // by FileType
};

// A family as it lies on the card: chunk n starts at startSector * 512 + n * chunkSize.
struct CardFamily {
  uint32_t chunkSize = 0;  // bytes
  uint32_t chunks = 0;
  uint32_t startSector = 0;  // of chunk 0, from the start of the device

  uint64_t startByte() const { return uint64_t{startSector} * 512; }
  uint64_t bytes() const { return uint64_t{chunkSize} * chunks; }
};

// A ready-made proportion of chunks.
struct CardProfile {
  const char* name;
  const char* description;   // one line for people
  uint32_t streamChunks;     // at least so many, where the card has room for them
  uint32_t streamChunkMax;   // bytes; larger cards get more chunks instead
  uint32_t bytesPerPicture;  // average below which picture entries run out before stream data
};

// Where everything of a card lies: a FAT32 volume of 512-byte sectors with the root directory in
// cluster 2, and the nine families of chunk files behind it, back to back in chunk-number order.
// Plain values, nothing is read or written; one thread at a time.
class TARN_API CardLayout {
 public:
  static constexpr uint32_t kAlignBytes = 65536;  // families, and by default chunks, start on these
  static constexpr uint32_t kMaxChunks = 32767;   // chunk numbers are signed 16-bit
  static constexpr uint32_t kMaxDirectoryEntries = 65536;
  static constexpr uint32_t kMinClusters = 65525;      // fewer make a PC read it as FAT16
  static constexpr uint32_t kMaxClusters = 268435444;  // more have no number

  static const std::vector<CardProfile>& profiles();
  // The family in words ("stream", "journal management") for messages and options.
  static const char* familyName(int fileType);

  // Works out the layout. 0, or -1 with the reason in *error in a person's words; the object then
  // holds nothing useful.
  int plan(const CardRequest& request, std::string* error);

  // The same around chunk files whose places are known: what leads to them lies in front of them.
  // 0, or -1 with the reason in *error.
  int planAround(const std::array<CardFamily, kFileTypeCount>& families, std::string* error);

  uint64_t sizeBytes() const { return uint64_t{totalSectors_} * 512; }  // of the volume
  uint32_t totalSectors() const { return totalSectors_; }
  uint32_t clusterBytes() const { return clusterBytes_; }
  uint32_t clusters() const { return clusters_; }  // of the data region
  uint32_t reservedSectors() const { return reservedSectors_; }
  uint32_t fatSectors() const { return fatSectors_; }  // of one of the two FATs
  uint64_t dataByte() const {
    return (uint64_t{reservedSectors_} + 2 * uint64_t{fatSectors_}) * 512;
  }
  uint32_t rootEntries() const { return rootEntries_; }  // 32 bytes each, the volume label included
  uint64_t rootBytes() const { return rootBytes_; }
  // First byte behind the last chunk; the rest of the volume is free space.
  uint64_t endByte() const { return endByte_; }
  const CardFamily& family(int fileType) const { return families_[static_cast<size_t>(fileType)]; }
  uint64_t chunkByte(int fileType, uint32_t chunk) const;
  uint32_t clusterOfByte(uint64_t byte) const;  // byte is at or behind dataByte()
  // Clusters in use by the root directory and all chunk files.
  uint32_t usedClusters() const;

 private:
  bool aroundWith(uint32_t clusterBytes);
  bool planVolume(const CardRequest& request, std::string* error);
  bool planClusters(uint32_t clusterBytes);
  bool planSmallFamilies(const CardRequest& request, std::string* error);
  bool planStreams(const CardRequest& request, std::string* error);
  void chooseStreamSize(const CardRequest& request, const CardProfile& profile, uint32_t chunks);
  uint32_t pictureSizeFor(const CardRequest& request, const CardProfile& profile,
                          uint64_t streamSize) const;
  uint32_t mostStreams() const;
  uint64_t place(uint32_t streams);
  uint32_t entriesOf(uint32_t chunks) const;
  uint64_t limitByte() const { return dataByte() + uint64_t{clusters_} * clusterBytes_; }
  bool checkFamily(int fileType, std::string* error) const;
  bool check(std::string* error) const;

  uint32_t totalSectors_ = 0;
  uint32_t clusterBytes_ = 0;
  uint32_t clusters_ = 0;
  uint32_t reservedSectors_ = 0;
  uint32_t fatSectors_ = 0;
  uint32_t rootEntries_ = 0;
  uint64_t rootBytes_ = 0;
  uint64_t endByte_ = 0;
  bool ownManageSize_ = true;  // the stream management chunk grows with the number of chunks
  std::array<CardFamily, kFileTypeCount> families_{};
};

}  // namespace tarn
