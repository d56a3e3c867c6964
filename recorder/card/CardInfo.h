#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "manager/ChunkRecords.h"
#include "recorder/card/CardLayout.h"

namespace tarn {

class CardBytes;
struct CardMap;

// Management data of one kind of chunks, read without a server.
struct CardManagement {
  enum class Copies { kBothGood, kMainBad, kBackupBad, kBothBad, kDifferent };
  Copies copies = Copies::kBothBad;
  // The main copy's records where it is good, else the backup's; empty when both are bad.
  std::vector<CHUNK_MANAGE> records;
};

// Reads what a card says about itself, without changing it and without a server or database.
// Numbers are those on the medium: what a running server has not saved yet is not in them.
// One thread at a time; holds no descriptor between calls.
class TARN_API CardInfo {
 public:
  // 0, or -1 with the reason in *error in a person's words. Bad management copies are no failure:
  // they show in management().
  int read(const std::string& path, std::string* error);

  uint64_t deviceBytes() const { return deviceBytes_; }
  uint64_t volumeBytes() const { return volumeBytes_; }
  uint32_t volumeId() const { return volumeId_; }
  const std::string& label() const { return label_; }  // without trailing blanks
  uint32_t clusterBytes() const { return clusterBytes_; }
  uint32_t clusters() const { return clusters_; }
  const CardFamily& family(int fileType) const { return families_[static_cast<size_t>(fileType)]; }

  // kFileStreamManage, kFileSyslogManage or kFileJournalManage.
  const CardManagement& management(int manageType) const;
  // Stream chunks that belong to a channel.
  uint32_t streamChunksInUse() const;
  // Bytes between use and free, over all chunks of a kind: kFileStream, kFilePicture, kFileSyslog,
  // kFileJournal. Rings that are completely full read as empty, as everywhere.
  uint64_t usedBytes(int fileType) const;
  uint32_t usedBytes(int fileType, uint32_t chunk) const;
  // Stored database image: bytes, 0 or -1 for none.
  int32_t dbImageBytes() const { return dbImageBytes_; }

 private:
  uint64_t deviceBytes_ = 0;
  uint64_t volumeBytes_ = 0;
  uint32_t volumeId_ = 0;
  std::string label_;
  uint32_t clusterBytes_ = 0;
  uint32_t clusters_ = 0;
  std::array<CardFamily, kFileTypeCount> families_{};
  std::array<CardManagement, 3> management_;
  int32_t dbImageBytes_ = 0;

  bool readVolume(const CardBytes& card, CardMap* map, std::string* error);
  bool readInfoFile(const CardBytes& card, CardMap* map, std::string* error);
  bool checkFamilies(const CardMap& map, std::string* error) const;
  bool readManagement(const CardBytes& card, std::string* error);
  void readCopies(const CardBytes& card, int type);
};

}  // namespace tarn
