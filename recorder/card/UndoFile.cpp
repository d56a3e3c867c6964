#include "recorder/card/UndoFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "base/FileSync.h"
#include "base/UniqueFd.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

constexpr char kMark[] = "TARNUNDO";
constexpr size_t kMarkBytes = 8;
constexpr size_t kHeadBytes = kMarkBytes + 8 + 4;
constexpr size_t kPieceHeadBytes = 8 + 4;
constexpr size_t kCrcBytes = 2;
constexpr off_t kMaxBytes = 1 << 30;

void add32(std::vector<uint8_t>* out, uint32_t value) {
  uint8_t bytes[4];
  putLe32(bytes, value);
  out->insert(out->end(), bytes, bytes + sizeof bytes);
}

void add64(std::vector<uint8_t>* out, uint64_t value) {
  uint8_t bytes[8];
  putLe64(bytes, value);
  out->insert(out->end(), bytes, bytes + sizeof bytes);
}

bool transferAll(int fd, uint8_t* bytes, size_t length, bool writing) {
  while (length > 0) {
    const ssize_t done = writing ? ::write(fd, bytes, length) : ::read(fd, bytes, length);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes += done;
    length -= static_cast<size_t>(done);
  }
  return true;
}

}  // namespace

std::vector<uint8_t> UndoFile::encode() const {
  std::vector<uint8_t> out(kMark, kMark + kMarkBytes);
  add64(&out, cardBytes);
  add32(&out, static_cast<uint32_t>(pieces.size()));
  for (const Piece& piece : pieces) {
    add64(&out, piece.offset);
    add32(&out, static_cast<uint32_t>(piece.before.size()));
    out.insert(out.end(), piece.before.begin(), piece.before.end());
    out.insert(out.end(), piece.after.begin(), piece.after.end());
  }
  uint8_t crc[kCrcBytes];
  putLe16(crc, crc16(out.data(), out.size()));
  out.insert(out.end(), crc, crc + kCrcBytes);
  return out;
}

bool UndoFile::decode(const std::vector<uint8_t>& bytes) {
  if (bytes.size() < kHeadBytes + kCrcBytes || memcmp(bytes.data(), kMark, kMarkBytes) != 0) {
    return false;
  }
  const size_t end = bytes.size() - kCrcBytes;
  if (crc16(bytes.data(), end) != getLe16(bytes.data() + end)) return false;
  cardBytes = getLe64(bytes.data() + kMarkBytes);
  const uint32_t count = getLe32(bytes.data() + kMarkBytes + 8);
  size_t at = kHeadBytes;
  for (uint32_t i = 0; i < count; ++i) {
    if (end - at < kPieceHeadBytes) return false;
    const uint64_t offset = getLe64(bytes.data() + at);
    const uint32_t length = getLe32(bytes.data() + at + 8);
    at += kPieceHeadBytes;
    if ((end - at) / 2 < length) return false;
    const uint8_t* before = bytes.data() + at;
    pieces.push_back({offset, {before, before + length}, {before + length, before + 2 * length}});
    at += size_t{2} * length;
  }
  return at == end;
}

int UndoFile::save(const std::string& path, std::string* error) const {
  const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  std::vector<uint8_t> bytes = encode();
  if (fd.valid() && transferAll(fd.get(), bytes.data(), bytes.size(), true) &&
      syncFile(fd.get()) == 0) {
    return 0;
  }
  *error = errnoText("cannot write " + path, errno);
  if (fd.valid()) unlink(path.c_str());
  return -1;
}

int UndoFile::join(const std::string& path, const std::string& next, std::string* error) {
  UndoFile first;
  UndoFile second;
  if (first.load(path, error) != 0 || second.load(next, error) != 0) return -1;
  for (Piece& piece : second.pieces) first.pieces.push_back(std::move(piece));
  const std::string joined = path + ".joined";
  if (first.save(joined, error) != 0) return -1;
  if (rename(joined.c_str(), path.c_str()) != 0) {
    *error = errnoText("cannot write " + path, errno);
    unlink(joined.c_str());
    return -1;
  }
  if (unlink(next.c_str()) == 0) return 0;
  *error = errnoText("cannot remove " + next, errno);
  return -1;
}

int UndoFile::load(const std::string& path, std::string* error) {
  *this = UndoFile();
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const off_t size = fd.valid() ? lseek(fd.get(), 0, SEEK_END) : -1;
  std::vector<uint8_t> bytes(size > 0 && size <= kMaxBytes ? static_cast<size_t>(size) : 0);
  if (size < 0 || lseek(fd.get(), 0, SEEK_SET) != 0 ||
      !transferAll(fd.get(), bytes.data(), bytes.size(), false)) {
    *error = errnoText("cannot read " + path, errno);
    return -1;
  }
  if (decode(bytes)) return 0;
  *error = path + " is not a whole undo file";
  return -1;
}

}  // namespace tarn
