#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "media/MediaInput.h"
#include "media/evidence/FileSum.h"
#include "media/export/ExportReport.h"

namespace tarn {

// What of an evidence folder is finished while it is made: the video of a channel, with what is
// told of its files and the sums that prove them. It stands beside them, a line for each channel
// that is added once its files are on the medium; so whatever ends a run, the next one goes on
// behind the last channel. Nothing of it is trusted: a line proves itself, and a file is what its
// sum says or it is made again. Used by one thread.
class FinishedParts {
 public:
  // No file of the case.
  static constexpr char kName[] = ".finished";

  // `folder` is that which is being made.
  explicit FinishedParts(std::string folder) : folder_(std::move(folder)) {}

  // Reads and proves what a run left, and takes away all video that is not proven. False with
  // error() set, also when `stopAsked` (may be empty) says so.
  bool open(const StopAsked& stopAsked);
  // The files of a channel, of paths below the folder; null where they are to be made. `of`: the
  // sum of all that they depend on; those of something else are taken away.
  const std::vector<ExportedChannel>* find(int channel, const std::string& of);
  // Notes a channel whose files are complete. False with error() set.
  bool add(int channel, const std::string& of, const std::vector<ExportedChannel>& files);

  // Channels that are finished.
  size_t count() const { return parts_.size(); }
  const std::string& error() const { return error_; }

 private:
  struct Part {
    std::string of;
    std::vector<ExportedChannel> files;
    std::vector<FileSum> sums;
  };

  bool fail(const std::string& text);
  bool readLine(const std::string& line);
  size_t readLines();
  bool isProven(const Part& part, const StopAsked& stopAsked);
  bool removeStrange();
  void remove(const Part& part);
  bool append(const std::string& line);

  const std::string folder_;
  std::map<int, Part> parts_;  // by channel
  std::string error_;
};

}  // namespace tarn
