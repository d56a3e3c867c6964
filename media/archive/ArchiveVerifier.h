#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaInput.h"

namespace tarn {

// Compares an archive with what it says of itself: indexes, sidecars, seals, and the hash of each
// object, which is read as a whole where its storage has no hash, or where it is sealed. Changes
// nothing. Throws nothing. Used by one thread.
class TARN_API ArchiveVerifier {
 public:
  struct Finding {
    std::string object;
    std::string text;
  };
  using Progress = std::function<void(size_t done, size_t objects)>;

  // `recorder` "": all that the place holds.
  ArchiveVerifier(const std::string& place, const std::string& recorder) noexcept;
  ~ArchiveVerifier();
  ArchiveVerifier(const ArchiveVerifier&) = delete;
  ArchiveVerifier& operator=(const ArchiveVerifier&) = delete;

  // How long a remote may move nothing before it is given up; 120.
  void waitAtMost(uint32_t seconds) noexcept;
  // Certificates, PEM: one of them must vouch for the seal of every clip. In front of run().
  void trust(const std::vector<std::string>& authorities) noexcept;

  // Once. False with error() set when the archive, or a part of it, could not be read.
  bool run(const StopAsked& stopAsked, const Progress& progress) noexcept;
  const std::vector<Finding>& findings() const noexcept;  // nothing where all is as it should be
  uint64_t objects() const noexcept;                      // clips whose bytes were compared
  const char* error() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
