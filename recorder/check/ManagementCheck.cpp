// The management files and the database image.
#include "recorder/check/CardContents.h"

namespace tarn {
namespace {

// In front of the image.
constexpr int64_t kImageSizeBytes = 4;

using Copies = CardManagement::Copies;

struct Managed {
  int manageType;
  int fileType;
  const char* files;  // for a person
};
constexpr Managed kManaged[] = {{kFileStreamManage, kFileStream, "MGST"},
                                {kFileSyslogManage, kFileSyslog, "MGSL"},
                                {kFileJournalManage, kFileJournal, "MGDL"}};

const char* copiesText(Copies copies) {
  switch (copies) {
    case Copies::kMainBad:
      return "the main copy is damaged, the backup is good";
    case Copies::kBackupBad:
      return "the backup is damaged, the main copy is good";
    case Copies::kDifferent:
      return "main copy and backup differ";
    default:
      return "both copies are damaged";
  }
}

void checkOffsets(CardContents* contents, const Managed& managed) {
  const CardManagement& management = contents->card.info().management(managed.manageType);
  const uint32_t size = contents->card.family(managed.fileType).chunkSize;
  const uint32_t pictureSize = contents->card.family(kFilePicture).chunkSize;
  for (uint32_t chunk = 0; chunk < management.records.size(); ++chunk) {
    const CHUNK_MANAGE& record = management.records[chunk];
    const bool pictures =
        managed.fileType == kFileStream &&
        (record.pictureUseOffset >= pictureSize || record.pictureFreeOffset >= pictureSize);
    if (!pictures && record.streamUseOffset < size && record.streamFreeOffset < size) continue;
    CardFinding finding;
    finding.kind = FindingKind::kManagement;
    finding.consequence = Consequence::kUnknown;
    finding.meaning = "where it is in use must be worked out from the journals' rows";
    finding.chunk = static_cast<int32_t>(chunk);
    finding.text = std::string(managed.files) + ": the addresses of chunk " +
                   std::to_string(chunk) + " lie behind its end";
    contents->findings.add(finding);
  }
}

void checkImage(CardContents* contents) {
  const int32_t bytes = contents->card.info().dbImageBytes();
  const uint32_t size = contents->card.family(kFileDbImage).chunkSize;
  if (bytes == -1 || (bytes >= 0 && int64_t{bytes} + kImageSizeBytes <= int64_t{size})) return;
  contents->findings.add(FindingKind::kImage, "the database image claims an impossible size: " +
                                                  std::to_string(bytes) + " bytes");
}

void addCopies(CardContents* contents, const Managed& managed, Copies copies) {
  CardFinding finding;
  finding.kind = FindingKind::kManagement;
  finding.text = std::string(managed.files) + ": " + copiesText(copies);
  if (copies != Copies::kMainBad && copies != Copies::kBackupBad) {
    finding.consequence = Consequence::kUnknown;
    finding.meaning = "where chunks are in use must be worked out from the journals' rows";
  }
  contents->findings.add(finding);
}

}  // namespace

void checkManagement(CardContents* contents) {
  for (const Managed& managed : kManaged) {
    const Copies copies = contents->card.info().management(managed.manageType).copies;
    if (copies != Copies::kBothGood) addCopies(contents, managed, copies);
    checkOffsets(contents, managed);
  }
  checkImage(contents);
}

}  // namespace tarn
