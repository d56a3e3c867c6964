#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tarn {

// What became of an archive's run.
struct ArchiveReport {
  struct Failure {
    std::string object;
    std::string reason;
  };

  std::string recorder;
  std::vector<std::string> uploaded;  // clips, in that order; of a dry run those that would be
  uint64_t bytes = 0;                 // of them
  uint64_t present = 0;               // clips that the archive has already
  uint64_t waiting = 0;               // recordings and events that are not over
  std::vector<uint32_t> waitingEvents;
  std::vector<std::string> endangered;  // recordings that the ring overwrites next, not archived
  uint64_t indexes = 0;                 // that were written
  // How it is known that objects arrived.
  uint64_t byHash = 0;
  uint64_t byReadBack = 0;
  uint64_t bySize = 0;
  std::vector<Failure> incomplete;  // clips that were archived with pictures missing
  std::vector<Failure> failures;    // clips that could not be made
};

}  // namespace tarn
