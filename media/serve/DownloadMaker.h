#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "media/MediaInput.h"

namespace tarn {

// What somebody wants to keep.
struct DownloadRequest {
  bool evidence = false;       // the folder of a case; else a movie
  std::optional<int> channel;  // nothing: all, of evidence only
  int64_t fromUs = 0;
  int64_t toUs = 0;
  bool quickTime = false;  // the movie is a .mov, which holds G.711
  std::string name;        // without an ending
  std::string folder;      // where to make it, and nothing else
};

// What became of it.
struct DownloadOutcome {
  bool made = false;
  std::string error;                 // why not
  std::vector<std::string> missing;  // sentences about what is not in it
};

// Makes it, in a thread of its caller's. `stopAsked` is asked often, and ends the work as an error.
using DownloadMaker =
    std::function<DownloadOutcome(const DownloadRequest& request, const StopAsked& stopAsked)>;

}  // namespace tarn
