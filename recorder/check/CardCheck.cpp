#include "recorder/check/CardCheck.h"

#include "recorder/card/NoThrow.h"
#include "recorder/check/CardContents.h"

namespace tarn {
namespace {

// What a running recorder saves later is about ends and orders; nothing of it is told by these.
bool staysWhileRecorded(const CardFinding& finding) {
  switch (finding.kind) {
    case FindingKind::kFat:
    case FindingKind::kFile:
    case FindingKind::kManagement:
    case FindingKind::kJournalCopy:
    case FindingKind::kJournalRecord:
    case FindingKind::kImage:
    case FindingKind::kUnreadable:
      return finding.streamID == 0 && finding.eventID == 0;
    default:
      return false;
  }
}

}  // namespace

int CardCheck::run(const std::string& path, const CardCheckOptions& options, std::string* error) {
  return orNoMemory(
      "CardCheck",
      [&]() -> int {
        *this = CardCheck();
        CardContents contents;
        contents.progress = options.progress;
        contents.wholePictures = options.wholePictures;
        contents.threads = options.threads;
        if (contents.card.open(path, error) != 0) return -1;
        checkVolume(&contents);
        checkManagement(&contents);
        checkJournals(&contents);
        if (!checkRecordings(&contents)) {
          *error = "stopped before all of " + path + " was looked at";
          return -1;
        }
        checkRings(&contents);
        checkLog(&contents);
        findings_ = contents.findings;
        notes_ = contents.notes;
        eventsWithoutVideo_ = contents.eventsWithoutVideo;
        streamRows_ = static_cast<uint32_t>(contents.streams.size());
        eventRows_ = static_cast<uint32_t>(contents.events.size());
        pictures_ = contents.pictures;
        return 0;
      },
      [&]() -> int { return memoryOut(error); });
}

int CardCheck::runOn(const std::string& path, const std::vector<DB_STREAM>& rows,
                     const std::vector<DB_EVENT>& events, const CardCheckOptions& options,
                     std::string* error) {
  return orNoMemory(
      "CardCheck::runOn",
      [&]() -> int {
        *this = CardCheck();
        CardContents contents;
        contents.progress = options.progress;
        contents.wholePictures = options.wholePictures;
        contents.threads = options.threads;
        for (const DB_STREAM& row : rows) contents.streams[row.streamID] = row;
        for (const DB_EVENT& event : events) contents.events[event.eventID] = event;
        if (contents.card.open(path, error) != 0) return -1;
        if (!checkRows(&contents)) {
          *error = "stopped before all recordings of " + path + " were looked at";
          return -1;
        }
        findings_ = contents.findings;
        streamRows_ = static_cast<uint32_t>(contents.streams.size());
        pictures_ = contents.pictures;
        return 0;
      },
      [&]() -> int { return memoryOut(error); });
}

int CardCheck::runAround(const std::string& path, std::string* error) {
  return orNoMemory(
      "CardCheck::runAround",
      [&]() -> int {
        *this = CardCheck();
        CardContents contents;
        if (contents.card.open(path, error) != 0) return -1;
        checkVolume(&contents);
        checkManagement(&contents);
        checkJournals(&contents);
        for (const CardFinding& finding : contents.findings.list()) {
          if (staysWhileRecorded(finding)) findings_.add(finding);
        }
        return 0;
      },
      [&]() -> int { return memoryOut(error); });
}

}  // namespace tarn
