#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/MediaInput.h"
#include "media/OutputFile.h"
#include "media/evidence/EvidenceFacts.h"
#include "media/evidence/EvidenceStory.h"
#include "media/seal/FileVerifier.h"
#include "media/serve/Thumbnails.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

class CardInfo;

// What verifying said of a file that was just sealed.
struct ReportedProof {
  std::string file;
  FileProof proof;
};

// report.html: a case for a person, in one file that needs neither a network nor scripts. All that
// comes from the card or from outside goes through htmlText(). Used by one thread.
class Report {
 public:
  // All outlive this. `missing`: sentences about what could not be read.
  Report(const EvidenceMaking& making, const CardInfo& card, const EvidenceStory& story,
         const std::vector<ReportedProof>& proofs, const std::vector<std::string>& missing)
      : making_(making), card_(card), story_(story), proofs_(proofs), missing_(missing) {}

  // False with error() set, also when `stopAsked` (may be empty) says so.
  bool write(const std::string& path, const StopAsked& stopAsked);
  const std::string& error() const { return error_; }

 private:
  void addHead();
  void addCard();
  void addTimeline();
  void addChannelLine(const EvidenceChannel& channel);
  void addGaps();
  void addEvents();
  void addRecordings();
  void addProof();
  void addByHand();
  bool addMinutes(const StopAsked& stopAsked);
  bool addMinute(int64_t minute, size_t* line);
  void addPicture(const EvidencePicture& picture);
  double placeOf(int64_t us) const;
  bool flush();

  const EvidenceMaking& making_;
  const CardInfo& card_;
  const EvidenceStory& story_;
  const std::vector<ReportedProof>& proofs_;
  const std::vector<std::string>& missing_;
  OutputFile file_;
  std::string page_;  // what is not in the file yet
  Thumbnails thumbnails_;
  RecordingReader reader_;
  std::vector<size_t> next_;  // of each channel: its next picture
  std::string error_;
};

}  // namespace tarn
