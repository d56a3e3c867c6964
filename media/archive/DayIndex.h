#pragma once

#include <map>
#include <set>
#include <string>

#include "base/Export.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

// The index of one day: a line for each object, and for what has none. Used by one thread. Not part
// of the interface.
class TARN_API DayIndex {
 public:
  // `day`: its folder.
  DayIndex(ArchiveStore* store, const std::string& day) : store_(store), day_(day) {}

  // What the storage has of it, under this name, packed or not. Lines that are none are left out,
  // and counted; a packed one that cannot be unpacked has no lines, and isBroken(). False with the
  // storage's error.
  bool read(const char* name = kIndexName);
  size_t brokenLines() const { return broken_; }
  bool isBroken() const { return isBroken_; }
  // Whether read() found it.
  bool had(const std::string& identity) const { return had_.count(identity) != 0; }
  // Whether what lies in the storage as the beginning of an index or a sidecar is the whole of it.
  // False with the storage's error.
  bool isWholePart(const std::string& name, bool* whole);
  // Reads a sidecar and adds what it says, where it is one. False with the storage's error.
  bool addSidecar(const std::string& name);
  void add(const ArchiveLine& line) { lines_[line.identity()] = line; }
  // Forgets what was said of a recording beside its own line: findings, and gaps within it.
  void forgetStory(const ArchiveLine& recording);
  // The same of the card itself.
  void forgetCard();
  // Whether it has a recording that lies in a gap: the card has given that up, the archive not.
  bool fills(const ArchiveLine& gap) const;
  // Of all parts of a clip.
  uint64_t missingOf(const ArchiveLine& first) const;
  const ArchiveLine* find(const std::string& identity) const;
  const std::map<std::string, ArchiveLine>& lines() const { return lines_; }
  // Writes it where it is not what the storage has. False with the storage's error.
  bool write(bool* written);

 private:
  bool fetch(const std::string& name, size_t most, std::string* text);
  bool isAsStored(const std::string& name, const std::string& text);
  std::string text() const;

  ArchiveStore* store_;
  const std::string day_;
  std::map<std::string, ArchiveLine> lines_;  // by their identity
  std::set<std::string> had_;
  std::string stored_;  // the text that the storage has, packed
  size_t broken_ = 0;
  bool isBroken_ = false;
  bool isTooLong_ = false;  // what was fetched last
};

}  // namespace tarn
