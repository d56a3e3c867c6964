#include "media/archive/DayIndex.h"

#include <algorithm>
#include <sstream>
#include <vector>

#include "media/archive/ArchiveNames.h"

namespace tarn {

bool DayIndex::fetch(const std::string& name, std::string* text) {
  return store_->get(name, [text](const uint8_t* data, size_t size) {
    text->append(reinterpret_cast<const char*>(data), size);
    return true;
  });
}

bool DayIndex::read() {
  if (!fetch(day_ + kIndexName, &stored_)) return false;
  std::istringstream all(stored_);
  for (std::string one; std::getline(all, one);) {
    ArchiveLine line;
    if (ArchiveLine::parse(one, &line)) {
      add(line);
    } else {
      ++broken_;
    }
  }
  return true;
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
  const auto source = [&wanted](const ByteSink& sink) {
    return sink(reinterpret_cast<const uint8_t*>(wanted.data()), wanted.size());
  };
  if (!store_->put(day_ + kIndexName, source, &stored)) return false;
  stored_ = wanted;
  return true;
}

}  // namespace tarn
