#include "OverlayPages.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "fat/FatFormat.h"

namespace tarn {
namespace {

static_assert(OverlayPages::kPageBytes % kSectorBytes == 0);

// What of [offset, offset + length) lies in the page of its first byte: to which byte of it.
uint32_t endInPage(uint64_t offset, size_t length) {
  const auto from = static_cast<uint32_t>(offset % OverlayPages::kPageBytes);
  return from + static_cast<uint32_t>(std::min<uint64_t>(length, OverlayPages::kPageBytes - from));
}

}  // namespace

OverlayPages::OverlayPages(CardOriginal* original, uint64_t mostBytes)
    : original_(original), mostPages_(mostBytes / kPageBytes) {}

ssize_t OverlayPages::read(uint64_t offset, void* out, size_t length) {
  if (offset >= size()) return 0;
  length = static_cast<size_t>(std::min<uint64_t>(length, size() - offset));
  auto* bytes = static_cast<uint8_t*>(out);
  size_t done = 0;
  while (done < length) {
    const uint64_t at = offset + done;
    size_t piece = cleanBytes(at, length - done);
    bool good = piece != 0 && readClean(at, bytes + done, piece);
    if (!good) {
      // A page that was written to, or a stretch that is refused somewhere: up to where.
      const auto from = static_cast<uint32_t>(at % kPageBytes);
      const uint32_t to = endInPage(at, length - done);
      piece = to - from;
      good = readPage(at / kPageBytes, from, to, bytes + done);
    }
    if (!good) return done != 0 ? static_cast<ssize_t>(done) : -EIO;
    done += piece;
  }
  return static_cast<ssize_t>(done);
}

bool OverlayPages::readClean(uint64_t offset, uint8_t* out, size_t length) {
  return original_->read(offset, out, length);
}

// How many bytes from `offset` on are the original's alone.
size_t OverlayPages::cleanBytes(uint64_t offset, size_t most) const {
  if (pages_.empty()) return most;
  uint64_t page = offset / kPageBytes;
  while (page * kPageBytes < offset + most && pages_.count(page) == 0) ++page;
  const uint64_t end = std::max(offset, page * kPageBytes);
  return static_cast<size_t>(std::min<uint64_t>(most, end - offset));
}

bool OverlayPages::readPage(uint64_t number, uint32_t from, uint32_t to, uint8_t* out) {
  const auto found = pages_.find(number);
  while (from < to) {
    const uint32_t sector = from / kSectorBytes;
    const uint32_t end = std::min(to, (sector + 1) * kSectorBytes);
    if (found != pages_.end() && found->second.held[sector]) {
      memcpy(out, found->second.bytes.data() + from, end - from);
    } else if (!original_->read(number * kPageBytes + from, out, end - from)) {
      return false;
    }
    out += end - from;
    from = end;
  }
  return true;
}

ssize_t OverlayPages::write(uint64_t offset, const void* data, size_t length) {
  if (length == 0) return 0;
  if (offset >= size()) return -ENOSPC;
  length = static_cast<size_t>(std::min<uint64_t>(length, size() - offset));
  const auto* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < length) {
    const uint64_t at = offset + done;
    const auto from = static_cast<uint32_t>(at % kPageBytes);
    const uint32_t to = endInPage(at, length - done);
    const int error = writePage(at / kPageBytes, from, to, bytes + done);
    if (error != 0) return done != 0 ? static_cast<ssize_t>(done) : -error;
    done += to - from;
  }
  return static_cast<ssize_t>(done);
}

// 0, or why not. Nothing of the page changes then.
int OverlayPages::writePage(uint64_t number, uint32_t from, uint32_t to, const uint8_t* data) {
  const bool isNew = pages_.count(number) == 0;
  if (isNew && pages_.size() >= mostPages_) {
    full_ = true;
    return ENOSPC;
  }
  Page& page = pages_[number];
  const uint32_t first = from / kSectorBytes;
  const uint32_t last = (to - 1) / kSectorBytes;
  const bool wholeFirst = from % kSectorBytes == 0 && (first != last || to % kSectorBytes == 0);
  const bool wholeLast = to % kSectorBytes == 0 && (first != last || from % kSectorBytes == 0);
  if ((!wholeFirst && !fetchSector(number, first, &page)) ||
      (!wholeLast && !fetchSector(number, last, &page))) {
    if (page.held.none()) pages_.erase(number);
    return EIO;
  }
  memcpy(page.bytes.data() + from, data, to - from);
  for (uint32_t sector = first; sector <= last; ++sector) page.held.set(sector);
  return 0;
}

// The original's bytes of a sector that is written in part. The card's end may lie in it.
bool OverlayPages::fetchSector(uint64_t number, uint32_t sector, Page* page) {
  if (page->held[sector]) return true;
  const uint64_t at = number * kPageBytes + uint64_t{sector} * kSectorBytes;
  const auto length = static_cast<size_t>(std::min<uint64_t>(kSectorBytes, size() - at));
  const bool read = original_->read(at, page->bytes.data() + sector * kSectorBytes, length);
  if (read) page->held.set(sector);
  return read;
}

void OverlayPages::collect(UndoFile* changes) {
  std::vector<uint64_t> numbers;
  for (const auto& page : pages_) numbers.push_back(page.first);
  std::sort(numbers.begin(), numbers.end());
  changes->cardBytes = size();
  for (const uint64_t number : numbers) {
    const Page& page = pages_.at(number);
    for (uint32_t sector = 0; sector < kSectors; ++sector) {
      const uint64_t at = number * kPageBytes + uint64_t{sector} * kSectorBytes;
      if (!page.held[sector] || at >= size()) continue;
      const auto length = static_cast<size_t>(std::min<uint64_t>(kSectorBytes, size() - at));
      const uint8_t* written = page.bytes.data() + sector * kSectorBytes;
      UndoFile::Piece piece{at, std::vector<uint8_t>(length), {written, written + length}};
      if (original_->read(at, piece.before.data(), length) && piece.before != piece.after)
        changes->pieces.push_back(std::move(piece));
    }
  }
}

}  // namespace tarn
