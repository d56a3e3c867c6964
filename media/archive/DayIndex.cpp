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
namespace {

// What an archive gives may be anything, and without an end.
constexpr size_t kMostSidecarBytes = size_t{64} * 1024;
constexpr size_t kMostIndexBytes = size_t{256} * 1024 * 1024;

}  // namespace

bool DayIndex::fetch(const std::string& name, size_t most, std::string* text) {
  isTooLong_ = false;
  const bool got = store_->get(name, [&](const uint8_t* data, size_t size) {
    isTooLong_ = size > most - text->size();
    if (!isTooLong_) text->append(reinterpret_cast<const char*>(data), size);
    return !isTooLong_;
  });
  return got || isTooLong_;
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
  if (!fetch(day_ + name, kMostIndexBytes, &stored)) return false;
  isBroken_ = isTooLong_;
  if (isBroken_) return true;
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
  *whole = false;
  if (!fetch(part, kMostIndexBytes, &stored)) return false;
  if (isTooLong_) return true;
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

void DayIndex::forgetCard() {
  for (auto one = lines_.begin(); one != lines_.end();) {
    const ArchiveLine& line = one->second;
    one = line.kind == "finding" && line.key == 0 ? lines_.erase(one) : std::next(one);
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
  if (!fetch(name, kMostSidecarBytes, &stored)) return false;
  if (isTooLong_) return true;
  const std::string text = stored.substr(0, stored.find_last_not_of('\n') + 1);
  ArchiveLine line;
  if (!ArchiveLine::parse(text, &line) || sidecarOf(line.object) != name)
    return isAsStored(name, stored);
  add(line);
  return true;
}

uint64_t DayIndex::missingOf(const ArchiveLine& first) const {
  uint64_t missing = first.missing;
  for (uint32_t part = 2; part <= first.parts; ++part) {
    const ArchiveLine* line = find(partName(first.object, part));
    if (line == nullptr) break;
    missing += line->missing;
  }
  return missing;
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
