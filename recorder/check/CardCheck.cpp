#include "recorder/check/CardCheck.h"

#include "recorder/card/NoThrow.h"
#include "recorder/check/CardContents.h"

namespace tarn {

int CardCheck::run(const std::string& path, const CardCheckOptions& options, std::string* error) {
  return orNoMemory(
      "CardCheck",
      [&]() -> int {
        *this = CardCheck();
        CardContents contents;
        contents.progress = options.progress;
        contents.wholePictures = options.wholePictures;
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

}  // namespace tarn
