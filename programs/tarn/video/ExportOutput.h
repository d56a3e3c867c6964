#pragma once

#include <string>
#include <vector>

#include "media/export/ExportReport.h"

namespace tarn {

// What an export came to, as the tool says it.
class ExportOutput {
 public:
  // The channels outlive this.
  explicit ExportOutput(const std::vector<ExportedChannel>& channels) : channels_(channels) {}

  // One line for each channel on standard output, unless `quiet`, and on standard error what is
  // wrong with it.
  void tell(bool quiet) const;
  // What was written, as JSON on standard output. Nothing when nothing was. `tracks`: the channels
  // are tracks of one file.
  void printJson(bool tracks) const;

 private:
  std::string label(const ExportedChannel& channel, const char* behind) const;
  void tellContents(const ExportedChannel& channel) const;

  const std::vector<ExportedChannel>& channels_;
};

}  // namespace tarn
