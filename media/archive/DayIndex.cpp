#include "media/archive/DayIndex.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <sstream>
#include <utility>
#include <vector>

#include "media/archive/PackedText.h"

namespace tarn {

bool DayIndex::fetch(const std::string& name, std::string* text) {
  return store_->get(name, [text](const uint8_t* data, size_t size) {
    text->append(reinterpret_cast<const char*>(data), size);
    return true;
  });
}

bool DayIndex::read(const char* name) {
  std::string text;
  if (!fetch(day_ + name, &text)) return false;
  if (strcmp(name, kIndexName) == 0) {
    const std::string packed = std::move(text);
    isBroken_ = !unpackText(packed, &text);
    if (isBroken_) return true;
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
  return true;
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
  std::string text;
  if (!fetch(name, &text)) return false;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  ArchiveLine line;
  if (ArchiveLine::parse(text, &line) && sidecarOf(line.object) == name) add(line);
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
