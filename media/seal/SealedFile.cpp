#include "media/seal/SealedFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "recorder/card/DeviceIo.h"

namespace tarn {
namespace {

// A day of fragments of a second are 200,000 boxes; seals and certificates a few thousand bytes.
constexpr uint64_t kMostBoxes = 4000000;
constexpr uint64_t kMostMeta = 4 * 1024 * 1024;
constexpr size_t kMostSeals = 32;
constexpr size_t kMostTracks = 256;
constexpr size_t kPiece = 1024 * 1024;
constexpr size_t kFullHeader = 4;   // version and flags
constexpr size_t kSealsHeader = 6;  // the same, and a count that is always 1
constexpr uint64_t kScheme = 0x6F65666600010000;

constexpr char kErrBroken[] = "its seal is damaged";

std::vector<uint8_t> bytesOf(const std::vector<uint8_t>& all, const BoxReader& box) {
  return {all.begin() + static_cast<std::ptrdiff_t>(box.begin()),
          all.begin() + static_cast<std::ptrdiff_t>(box.end())};
}

}  // namespace

SealedFile::State SealedFile::fail(State state, const std::string& text) {
  error_ = text;
  return state;
}

bool SealedFile::readAt(uint64_t at, uint8_t* data, size_t size) {
  const ssize_t got = readUpTo(file_.get(), at, data, size);
  if (got == static_cast<ssize_t>(size)) return true;
  error_ =
      std::string("cannot be read: ") + (got < 0 ? strerror(errno) : "it became shorter meanwhile");
  return false;
}

bool SealedFile::topBoxAt(uint64_t at, TopBox* box) {
  uint8_t header[16] = {};
  const uint64_t left = size_ - at;
  const auto there = static_cast<size_t>(std::min<uint64_t>(left, sizeof header));
  error_ = "is cut off, or no movie";
  if (left < 8) return false;
  if (!readAt(at, header, there)) return false;
  const BoxReader reader(header, 0, sizeof header);
  uint64_t size = reader.numberAt(0, 4);
  box->header = 8;
  if (size == 1) {
    size = reader.numberAt(8, 8);
    box->header = 16;
  }
  if (size == 0) size = left;
  if (size < box->header || size > left) return false;
  box->type.assign(header + 4, header + 8);
  box->begin = at;
  box->end = at + size;
  return true;
}

bool SealedFile::holdsSeals(const TopBox& box) {
  const uint64_t size = box.end - box.begin;
  if (box.type != "meta" || box.header != 8 || size > kMostMeta || size < 8 + kFullHeader)
    return false;
  meta_.resize(static_cast<size_t>(size));
  if (!readAt(box.begin, meta_.data(), meta_.size())) return false;
  BoxReader inside(meta_.data(), 8 + kFullHeader, meta_.size());
  while (inside.next()) {
    if (inside.is("ipro")) return true;
  }
  return false;
}

SealedFile::State SealedFile::findMeta() {
  TopBox box;
  uint64_t count = 0;
  for (uint64_t at = 0; at < size_; at = box.end) {
    if (!topBoxAt(at, &box)) return fail(State::kUnsealed, error_);
    if (at == 0 && box.type != "ftyp") return fail(State::kUnsealed, "is no MP4");
    metaAt_ = at;
    if (holdsSeals(box)) return State::kSealed;
    if (++count > kMostBoxes) return fail(State::kUnsealed, "has too many parts");
  }
  return fail(State::kUnsealed, "is not sealed");
}

bool SealedFile::readStarts(const BoxReader& box, Seal* seal) const {
  if (box.size() < 4) return false;
  const uint64_t count = box.numberAt(box.begin(), 4);
  if (count > kMostTracks || box.size() != 4 + 12 * count) return false;
  for (size_t i = 0; i < count; ++i) {
    const size_t at = box.begin() + 4 + 12 * i;
    seal->starts.push_back({static_cast<uint32_t>(box.numberAt(at, 4)), box.numberAt(at + 4, 8)});
  }
  return true;
}

// What the seal is made of.
bool SealedFile::readScheme(const BoxReader& box, Seal* seal) {
  size_t signatures = 0;
  size_t certificates = 0;
  BoxReader inside(meta_.data(), box.begin(), box.end());
  while (inside.next()) {
    if (inside.is("sibo")) {
      ++signatures;
      seal->signatureAt = inside.begin();
      seal->signature = bytesOf(meta_, inside);
    } else if (inside.is("cert")) {
      ++certificates;
      seal->certificate = bytesOf(meta_, inside);
    } else if (inside.is("auib")) {
      size_t at = inside.begin();
      if (!inside.textAt(&at, &seal->words)) return false;
    } else if (inside.is("sigC")) {
      seal->otherAlgorithm = true;
    } else if (inside.is("cstb") && !readStarts(inside, seal)) {
      return false;
    }
  }
  return inside.whole() && signatures == 1 && certificates == 1;
}

bool SealedFile::readSeal(const BoxReader& box) {
  Seal seal;
  seal.begin = box.boxBegin();
  seal.end = box.end();
  size_t types = 0;
  size_t schemes = 0;
  BoxReader inside(meta_.data(), box.begin(), box.end());
  while (inside.next()) {
    if (inside.is("schm")) {
      ++types;
      if (inside.size() < kFullHeader + 8 ||
          inside.numberAt(inside.begin() + kFullHeader, 8) != kScheme)
        return false;
    } else if (inside.is("schi")) {
      ++schemes;
      if (!readScheme(inside, &seal)) return false;
    } else if (inside.is("cstb") && !readStarts(inside, &seal)) {
      return false;
    }
  }
  seals_.push_back(std::move(seal));
  return inside.whole() && types == 1 && schemes == 1;
}

bool SealedFile::readSeals(const BoxReader& box) {
  if (box.size() < kSealsHeader || sealsEnd_ != 0) return false;
  sealsBox_ = box.boxBegin();
  sealsEnd_ = box.end();
  BoxReader inside(meta_.data(), box.begin() + kSealsHeader, box.end());
  while (inside.next()) {
    if (!inside.is("sinf") || seals_.size() >= kMostSeals || !readSeal(inside)) return false;
  }
  return inside.whole() && !seals_.empty();
}

// Only what can be read of it counts: it proves nothing but itself.
void SealedFile::readStatement(const BoxReader& box) {
  ExportStatement all;
  if (box.size() < kFullHeader || meta_[box.begin()] != 1) return;
  size_t at = box.begin() + kFullHeader;
  if (!box.textAt(&at, &all.unitName) || !box.textAt(&at, &all.unitUrl) ||
      !box.textAt(&at, &all.unitMac) || box.end() - at < 8)
    return;
  all.time = box.numberAt(at, 8);
  at += 8;
  if (!box.textAt(&at, &all.operatorName) || box.end() - at < 4) return;
  const uint64_t count = box.numberAt(at, 4);
  at += 4;
  for (uint64_t i = 0; i < std::min<uint64_t>(count, kMostTracks); ++i) {
    ExportStatement::Source source;
    if (box.end() - at < 2) return;
    source.track = static_cast<uint16_t>(box.numberAt(at, 2));
    at += 2;
    if (!box.textAt(&at, &source.name) || !box.textAt(&at, &source.url) ||
        !box.textAt(&at, &source.mac) || !box.textAt(&at, &source.line))
      return;
    all.sources.push_back(source);
  }
  statement_ = all;
}

SealedFile::State SealedFile::readMeta() {
  BoxReader inside(meta_.data(), 8 + kFullHeader, meta_.size());
  while (inside.next()) {
    if (inside.is("suep")) readStatement(inside);
    if (inside.is("ipro") && !readSeals(inside)) return fail(State::kBroken, kErrBroken);
  }
  return inside.whole() ? State::kSealed : fail(State::kBroken, kErrBroken);
}

SealedFile::State SealedFile::open(const std::string& path) {
  file_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (!file_.valid() || ::fstat(file_.get(), &info) != 0)
    return fail(State::kUnreadable, std::string("cannot be read: ") + strerror(errno));
  if (!S_ISREG(info.st_mode)) return fail(State::kUnreadable, "is no file");
  size_ = static_cast<uint64_t>(info.st_size);
  const State state = findMeta();
  return state == State::kSealed ? readMeta() : state;
}

void SealedFile::setSize(std::vector<uint8_t>* bytes, size_t at, size_t size) const {
  for (size_t i = 0; i < 4; ++i) (*bytes)[at + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
}

std::vector<uint8_t> SealedFile::metaWith(size_t seals) const {
  const auto at = [this](size_t place) {
    return meta_.begin() + static_cast<std::ptrdiff_t>(place);
  };
  const size_t end = seals_[seals - 1].end;
  std::vector<uint8_t> bytes(meta_.begin(), at(end));
  bytes.insert(bytes.end(), at(sealsEnd_), meta_.end());
  setSize(&bytes, 0, bytes.size());
  setSize(&bytes, sealsBox_, end - sealsBox_);
  return bytes;
}

std::vector<uint8_t> SealedFile::metaAndSeal(const std::vector<uint8_t>& seal,
                                             size_t* sealAt) const {
  std::vector<uint8_t> bytes(meta_);
  *sealAt = sealsEnd_;
  bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(sealsEnd_), seal.begin(), seal.end());
  setSize(&bytes, 0, bytes.size());
  setSize(&bytes, sealsBox_, sealsEnd_ + seal.size() - sealsBox_);
  return bytes;
}

bool SealedFile::addFile(uint64_t from, uint64_t to, const FileProgress& progress,
                         std::vector<Digest>* digests) {
  std::vector<uint8_t> piece(static_cast<size_t>(std::min<uint64_t>(kPiece, to - from)));
  while (from < to) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(piece.size(), to - from));
    if (!readAt(from, piece.data(), size)) return false;
    for (Digest& digest : *digests) digest.add(piece.data(), size);
    from += size;
    if (progress) progress(from, size_);
  }
  return true;
}

bool SealedFile::digests(std::vector<Digest::Value>* digests, const FileProgress& progress) {
  std::vector<Digest> each(seals_.size());
  if (!addFile(0, metaAt_, progress, &each)) return false;
  for (size_t i = 0; i < each.size(); ++i) {
    std::vector<uint8_t> meta = metaWith(i + 1);
    std::fill_n(meta.begin() + static_cast<std::ptrdiff_t>(seals_[i].signatureAt),
                seals_[i].signature.size(), uint8_t{0});
    each[i].add(meta.data(), meta.size());
  }
  if (!addFile(behindMeta(), size_, progress, &each)) return false;
  digests->resize(each.size());
  for (size_t i = 0; i < each.size(); ++i) {
    if (each[i].finish(&(*digests)[i])) continue;
    error_ = "cannot work out a checksum: " + cryptoError();
    return false;
  }
  return true;
}

}  // namespace tarn
