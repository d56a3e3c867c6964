#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace tarn {

// The folder of a case while it is made: DIR.part, which becomes DIR once all of it is on the
// medium. What a run left that did not end is known by the mark in it; all but the video, of which
// FinishedParts tells what is finished, is made anew. Used by one thread.
class EvidenceFolder {
 public:
  explicit EvidenceFolder(const std::string& path);
  ~EvidenceFolder();
  EvidenceFolder(const EvidenceFolder&) = delete;
  EvidenceFolder& operator=(const EvidenceFolder&) = delete;

  // All of these return false with error() set. `overwrite`: an evidence folder of that name goes
  // when the new one is complete; anything else of that name stays in any case.
  bool begin(bool overwrite);
  bool write(const std::string& name, const std::string& text);
  bool finish();
  // Takes away what is not finished, or leaves it to another run.
  void abandon();
  void leave();

  // Where a file of the folder lies now.
  std::string pathOf(const std::string& name) const { return part_ + "/" + name; }
  const std::string& part() const { return part_; }
  // After begin(): a run that did not end had left something.
  bool foundLeft() const { return foundLeft_; }
  const std::string& error() const { return error_; }

  // What stands in front of everything in manifest.json.
  static constexpr char kKind[] = "tarn evidence";

 private:
  bool fail(const std::string& text);
  bool failFor(const std::string& what, int code);
  bool mayReplace(bool overwrite);
  bool mark();
  bool clear();
  bool syncAll();
  bool rename();

  const std::string path_;
  const std::string part_;
  UniqueFd mark_;  // locked as long as it is made
  bool replaces_ = false;
  bool begun_ = false;
  bool foundLeft_ = false;
  std::string error_;
};

}  // namespace tarn
