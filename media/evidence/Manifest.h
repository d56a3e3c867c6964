#pragma once

#include <string>
#include <vector>

#include "media/evidence/EvidenceFacts.h"
#include "media/evidence/EvidenceStory.h"
#include "media/evidence/FileSum.h"
#include "media/serve/JsonText.h"

namespace tarn {

class CardInfo;

// manifest.json: all that a folder tells, for programs. docs/evidence.md says what is in it. Used
// by one thread.
class Manifest {
 public:
  // All outlive this. `missing`: sentences about what could not be read.
  Manifest(const EvidenceMaking& making, const CardInfo& card, const EvidenceStory& story,
           const std::vector<std::string>& missing)
      : making_(making), card_(card), story_(story), missing_(missing) {}

  // `sums`: of every other file.
  std::string text(const std::vector<FileSum>& sums);

 private:
  void addMaking();
  void addCard();
  void addChannel(const EvidenceChannel& channel);
  void addVideo(const ExportedChannel& video);
  void addSound(const SoundTotals& sound);
  void addRecording(const EvidenceRecording& recording);
  void addGap(const EvidenceGap& gap);
  void addEvent(const DB_EVENT& event);
  void addLog();
  void addJournal();
  void addChannelNumber(int channel);
  void addTime(const char* key, bool known, int64_t us);
  void addTime(const char* key, bool known, PictureTime time) {
    addTime(key, known, time.totalMicros());
  }

  const EvidenceMaking& making_;
  const CardInfo& card_;
  const EvidenceStory& story_;
  const std::vector<std::string>& missing_;
  JsonText json_;
};

}  // namespace tarn
