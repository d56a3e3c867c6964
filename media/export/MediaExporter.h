#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaInput.h"
#include "media/export/ExportReport.h"
#include "media/export/ExportRequest.h"
#include "media/seal/SealRequest.h"

namespace tarn {

// Writes recorded pictures to a file as they were recorded, or those of several channels to one
// each. Needs the recorder's database; recording may go on meanwhile.
//
// Throws nothing. Used by one thread.
class TARN_API MediaExporter {
 public:
  explicit MediaExporter(const ExportRequest& request) noexcept;
  ~MediaExporter();
  MediaExporter(const MediaExporter&) = delete;
  MediaExporter& operator=(const MediaExporter&) = delete;

  // Before run(): the files are sealed, as docs/evidence.md says, each a fragmented .mp4 or .mov.
  void seal(const SealRequest& seal) noexcept;
  // Before run(), for who keeps files from one run to the next; not with `tracks`. In front of each
  // channel `wanted` says whether to write it, and behind it `finished` gets what became of its
  // files, and says whether to go on.
  void channelByChannel(std::function<bool(int channel)> wanted,
                        std::function<bool(int channel, const std::vector<ExportedChannel>& files)>
                            finished) noexcept;
  // Once. True when all that is there was written; false when something failed or is missing: see
  // error() and channels(). A file exists only once it is complete. `stopAsked` (may be empty) is
  // asked before each picture, and ends the work as an error.
  bool run(const StopAsked& stopAsked = nullptr) noexcept;
  // Why nothing was exported, or not all; "" where channels() tells everything.
  const char* error() const noexcept;
  // What became of each channel, in the order of their numbers; behind run().
  const std::vector<ExportedChannel>& channels() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
