#include "recorder/card/FamilyRules.h"

#include "chunk/LogChunks.h"
#include "dblog/JournalFormat.h"
#include "manager/ManageFormat.h"

namespace tarn {
namespace {

constexpr uint32_t kJournalChunks = 4;  // two mirrored pairs
constexpr uint32_t kManageCopies = 2;

std::string text(uint64_t number) { return std::to_string(number); }

const CardFamily& familyOf(const CardFamilies& families, int type) {
  return families[static_cast<size_t>(type)];
}

std::string chunksOf(int type) { return std::string(CardLayout::familyName(type)) + " chunks"; }

std::string faultOfOne(const CardFamily& one, int type) {
  const std::string given = "the info file gives " + text(one.chunks) + " " + chunksOf(type) +
                            " of " + text(one.chunkSize) + " bytes";
  if (one.chunks < leastChunks(type)) {
    return given + ", the format at least " + text(leastChunks(type));
  }
  if (one.chunks > CardLayout::kMaxChunks) {
    return given + ", the format at most " + text(CardLayout::kMaxChunks);
  }
  const uint32_t most = type == kFileJournal ? kMaxJournalBytes : kMaxChunkBytes;
  if (one.chunkSize == 0 || one.chunkSize > most) {
    return given + ", the format 1 to " + text(most) + " bytes";
  }
  if (type == kFileJournal && one.chunkSize % kStreamRecordSize != 0) {
    return "the info file gives journal chunks of " + text(one.chunkSize) +
           " bytes, the format a multiple of " + text(kStreamRecordSize);
  }
  return "";
}

// What one family says about another.
std::string faultOfPairs(const CardFamilies& families) {
  const uint32_t streams = familyOf(families, kFileStream).chunks;
  const uint32_t pictures = familyOf(families, kFilePicture).chunks;
  if (streams != pictures) {
    return "the info file gives " + text(streams) + " stream chunks and " + text(pictures) +
           " picture chunks, which must be as many";
  }
  for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) {
    if (!isManagement(type)) continue;
    const uint32_t managed = familyOf(families, managedBy(type)).chunks;
    const uint32_t size = familyOf(families, type).chunkSize;
    if (manageDataSize(managed) <= size) continue;
    return "the info file gives " + chunksOf(type) + " of " + text(size) + " bytes, its " +
           text(managed) + " " + chunksOf(managedBy(type)) + " need " +
           text(manageDataSize(managed));
  }
  return "";
}

}  // namespace

uint32_t leastChunks(int type) {
  if (type == kFileJournal) return kJournalChunks;
  if (type == kFileSyslog) return kLogChunks;
  return isManagement(type) ? kManageCopies : 1;
}

bool isManagement(int type) { return managedBy(type) >= 0; }

int managedBy(int type) {
  if (type == kFileJournalManage) return kFileJournal;
  if (type == kFileSyslogManage) return kFileSyslog;
  return type == kFileStreamManage ? kFileStream : -1;
}

int managerOf(int type) {
  if (type == kFileStream || type == kFilePicture) return kFileStreamManage;
  if (type == kFileSyslog) return kFileSyslogManage;
  return type == kFileJournal ? kFileJournalManage : -1;
}

FamilyFault judgeFamilies(const CardFamilies& families) {
  for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) {
    const std::string fault = faultOfOne(familyOf(families, type), type);
    if (!fault.empty()) return {fault};
  }
  return {faultOfPairs(families)};
}

FamilyFault judgePlaces(const CardFamilies& families, uint64_t dataByte, uint64_t cardBytes) {
  for (int type = kFileInfo + 1; type < kFileTypeCount; ++type) {
    const CardFamily& one = familyOf(families, type);
    if (one.startByte() < dataByte) {
      return {"the info file has the " + chunksOf(type) + " at byte " + text(one.startByte()) +
              ", the data region begins at byte " + text(dataByte)};
    }
    const uint64_t end = one.startByte() + one.bytes();
    if (end > cardBytes) {
      return {"the " + chunksOf(type) + " end at byte " + text(end) + ", the card at byte " +
                  text(cardBytes),
              true};
    }
  }
  return {};
}

}  // namespace tarn
