#include "media/archive/DayIndex.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <sstream>
#include <utility>
#include <vector>

#include "media/archive/ContentHasher.h"
#include "media/archive/PackedText.h"

namespace tarn {

bool DayIndex::fetch(const std::string& name, std::string* text) {
  return store_->get(name, [text](const uint8_t* data, size_t size) {
    text->append(reinterpret_cast<const char*>(data), size);
    return true;
  });
}

// Before something is called damaged: the way here may have done it.
bool DayIndex::isAsStored(const std::string& name, const std::string& text) {
  ContentHasher hasher;
  ArchiveStore::Stored got;
  hasher.add(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  got.bytes = hasher.bytes();
  if (!hasher.finish(&got.hashes)) throw std::bad_alloc();
  return store_->confirm(name, got) != ArchiveStore::Answer::kFailed;
}

bool DayIndex::read(const char* name) {
  std::string stored;
  if (!fetch(day_ + name, &stored)) return false;
  std::string text = stored;
  if (strcmp(name, kIndexName) == 0) {
    isBroken_ = !unpackText(stored, &text);
    if (isBroken_) return isAsStored(day_ + name, stored);
    stored_ = text;
  }
  std::istringstream all(text);
  for (std::string one; std::getline(all, one);) {
    ArchiveLine line;
    if (ArchiveLine::parse(one, &line)) {
      add(line);
      had_.insert(line.identity());
    } else {
      ++broken_;
    }
  }
  return broken_ == 0 || isAsStored(day_ + name, stored);
}

bool DayIndex::isWholePart(const std::string& name, bool* whole) {
  const std::string part = name + kPartEnding;
  std::string stored;
  std::string text;
  ArchiveLine line;
  if (!fetch(part, &stored)) return false;
  if (endsIn(name, kIndexName)) {
    *whole = unpackText(stored, &text);
  } else {
    *whole = !stored.empty() && ArchiveLine::parse(stored.substr(0, stored.size() - 1), &line) &&
             sidecarOf(line.object) == name;
  }
  return *whole || isAsStored(part, stored);
}

void DayIndex::forgetStory(const ArchiveLine& recording) {
  for (auto one = lines_.begin(); one != lines_.end();) {
    const ArchiveLine& line = one->second;
    const bool finding = line.kind == "finding" && line.key == recording.key;
    const bool inside = line.kind == "gap" && line.channel == recording.channel &&
                        line.startMs >= recording.startMs && line.endMs <= recording.endMs;
    one = finding || inside ? lines_.erase(one) : std::next(one);
  }
}

bool DayIndex::fills(const ArchiveLine& gap) const {
  return std::any_of(lines_.begin(), lines_.end(), [&](const auto& one) {
    const ArchiveLine& line = one.second;
    return line.kind == "recording" && line.media == "video" && line.channel == gap.channel &&
           line.startMs >= gap.startMs && line.endMs <= gap.endMs;
  });
}

bool DayIndex::addSidecar(const std::string& name) {
  std::string stored;
  if (!fetch(name, &stored)) return false;
  const std::string text = stored.substr(0, stored.find_last_not_of('\n') + 1);
  ArchiveLine line;
  if (!ArchiveLine::parse(text, &line) || sidecarOf(line.object) != name)
    return isAsStored(name, stored);
  add(line);
  return true;
}

const ArchiveLine* DayIndex::find(const std::string& identity) const {
  const auto found = lines_.find(identity);
  return found != lines_.end() ? &found->second : nullptr;
}

std::string DayIndex::text() const {
  std::vector<ArchiveLine> sorted;
  for (const auto& one : lines_) sorted.push_back(one.second);
  std::sort(sorted.begin(), sorted.end());
  std::string text;
  for (const ArchiveLine& line : sorted) text += line.text() + "\n";
  return text;
}

bool DayIndex::write(bool* written) {
  const std::string wanted = text();
  *written = wanted != stored_;
  if (!*written) return true;
  ArchiveStore::Stored stored;
  std::string packed;
  if (!packText(wanted, &packed)) throw std::bad_alloc();
  const auto source = [&packed](const ByteSink& sink) {
    return sink(reinterpret_cast<const uint8_t*>(packed.data()), packed.size());
  };
  if (!store_->put(day_ + kIndexName, source, &stored)) return false;
  stored_ = wanted;
  return true;
}

}  // namespace tarn
