#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaInput.h"
#include "media/evidence/EvidenceRequest.h"
#include "media/export/ExportReport.h"

namespace tarn {

// Makes one folder of all that a card holds of a case: docs/evidence.md. Needs the recorder's
// database and, for the system log, its management server; recording may go on meanwhile.
//
// Throws nothing. Used by one thread. Not part of the interface.
class TARN_API EvidenceExporter {
 public:
  explicit EvidenceExporter(const EvidenceRequest& request) noexcept;
  ~EvidenceExporter();
  EvidenceExporter(const EvidenceExporter&) = delete;
  EvidenceExporter& operator=(const EvidenceExporter&) = delete;

  // Once. True when there is a folder with all that belongs into it. False with error() set when
  // there is none, and with error() "" when there is one that lacks what could not be read: it says
  // so, as does missing(). `stopAsked` (may be empty) is asked often, and ends the work as an
  // error.
  bool run(const StopAsked& stopAsked = nullptr) noexcept;
  const char* error() const noexcept;
  // Behind run(): what each channel's file holds; its path is where it is now.
  const std::vector<ExportedChannel>& channels() const noexcept;
  // Sentences about what is not there; each is in the report, too.
  const std::vector<std::string>& missing() const noexcept;
  // What a run that did not end had left was taken away, and all was made anew.
  bool beganAnew() const noexcept;
  // Channels whose video such a run had finished, and which was proven and kept.
  size_t keptChannels() const noexcept;
  // Behind a run() that failed: the video of some channels is finished, and the next one keeps it.
  bool leavesParts() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
