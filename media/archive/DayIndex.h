#pragma once

#include <map>
#include <set>
#include <string>

#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

// The index of one day: a line for each object, and for what has none. Used by one thread. Not part
// of the interface.
class DayIndex {
 public:
  // `day`: its folder.
  DayIndex(ArchiveStore* store, const std::string& day) : store_(store), day_(day) {}

  // What the storage has of it. Lines that are none are left out, and counted. False with the
  // storage's error.
  bool read();
  size_t brokenLines() const { return broken_; }
  // Reads a sidecar and adds what it says, where it is one. False with the storage's error.
  bool addSidecar(const std::string& name);
  void add(const ArchiveLine& line) { lines_[line.identity()] = line; }
  const ArchiveLine* find(const std::string& identity) const;
  const std::map<std::string, ArchiveLine>& lines() const { return lines_; }
  // Writes it where it is not what the storage has. False with the storage's error.
  bool write(bool* written);

 private:
  bool fetch(const std::string& name, std::string* text);
  std::string text() const;

  ArchiveStore* store_;
  const std::string day_;
  std::map<std::string, ArchiveLine> lines_;  // by their identity
  std::string stored_;
  size_t broken_ = 0;
};

}  // namespace tarn
