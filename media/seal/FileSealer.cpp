#include "media/seal/FileSealer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/FileSync.h"
#include "media/seal/FileVerifier.h"
#include "media/seal/SealBoxes.h"
#include "media/seal/SealWriter.h"
#include "media/seal/SealedFile.h"
#include "media/seal/SealingKey.h"

namespace tarn {
namespace {

constexpr size_t kPiece = 1024 * 1024;
constexpr uint64_t kMostFragmentHead = 16 * 1024 * 1024;
constexpr uint64_t kOffsetInFile = 0x000001;  // of tfhd: where the data are, counted from the file

// Whether what stands behind the seals of a file can move: a seal that is added makes room for
// itself there. Fragments can that do not say where in the file they are.
class Movable {
 public:
  explicit Movable(SealedFile* file) : file_(*file) {}

  bool all() {
    SealedFile::TopBox box;
    for (uint64_t at = file_.behindMeta(); at < file_.size(); at = box.end) {
      if (!file_.topBoxAt(at, &box)) return false;
      const bool moves = box.type == "mdat" || box.type == "free" || box.type == "skip" ||
                         (box.type == "moof" && fragmentMoves(box));
      if (!moves) return false;
    }
    return file_.behindMeta() == file_.size() || noTables();
  }

 private:
  bool load(const SealedFile::TopBox& box) {
    if (box.end - box.begin > kMostFragmentHead) return false;
    bytes_.resize(static_cast<size_t>(box.end - box.begin));
    return file_.readAt(box.begin, bytes_.data(), bytes_.size());
  }

  bool fragmentMoves(const SealedFile::TopBox& box) {
    if (box.header != 8 || !load(box)) return false;
    BoxReader tracks(bytes_.data(), 8, bytes_.size());
    while (tracks.next()) {
      if (!tracks.is("traf")) continue;
      BoxReader parts(bytes_.data(), tracks.begin(), tracks.end());
      while (parts.next()) {
        if (!parts.is("tfhd")) continue;
        if (parts.size() < 8 || (parts.numberAt(parts.begin(), 4) & kOffsetInFile) != 0)
          return false;
      }
      if (!parts.whole()) return false;
    }
    return tracks.whole();
  }

  // No track has samples outside of fragments.
  bool noTables() {
    SealedFile::TopBox box;
    for (uint64_t at = 0; at < file_.metaAt(); at = box.end) {
      if (!file_.topBoxAt(at, &box)) return false;
      if (box.type == "moov" && !(box.header == 8 && load(box) && empty(8, bytes_.size(), 0)))
        return false;
    }
    return true;
  }

  bool empty(size_t begin, size_t end, int depth) {
    static constexpr const char* kWay[] = {"trak", "mdia", "minf", "stbl"};
    BoxReader boxes(bytes_.data(), begin, end);
    while (boxes.next()) {
      if (depth < 4 && boxes.is(kWay[depth]) && !empty(boxes.begin(), boxes.end(), depth + 1))
        return false;
      if (depth < 4 || !(boxes.is("stco") || boxes.is("co64"))) continue;
      if (boxes.size() < 8 || boxes.numberAt(boxes.begin() + 4, 4) != 0) return false;
    }
    return boxes.whole();
  }

  SealedFile& file_;
  std::vector<uint8_t> bytes_;
};

// Takes NAME.part away again where it did not become NAME.
class PartFile {
 public:
  explicit PartFile(const std::string& path) : path_(path), part_(path + ".part") {}
  ~PartFile() {
    if (!done_) ::unlink(part_.c_str());
  }
  PartFile(const PartFile&) = delete;
  PartFile& operator=(const PartFile&) = delete;

  const std::string& part() const { return part_; }
  bool finish(std::string* error) {
    const UniqueFd file(::open(part_.c_str(), O_RDONLY | O_CLOEXEC));
    done_ =
        file.valid() && syncFile(file.get()) == 0 && ::rename(part_.c_str(), path_.c_str()) == 0;
    if (!done_) *error = "cannot complete " + path_ + ": " + strerror(errno);
    return done_;
  }

 private:
  const std::string path_;
  const std::string part_;
  bool done_ = false;
};

bool copy(SealedFile* from, uint64_t at, uint64_t end, const FileProgress& progress,
          SealWriter* to) {
  std::vector<uint8_t> piece(kPiece);
  while (at < end) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(piece.size(), end - at));
    if (!from->readAt(at, piece.data(), size) || !to->write(piece.data(), size)) return false;
    at += size;
    if (progress) progress(at, from->size());
  }
  return true;
}

// "" where every seal of the file holds and there is room for another.
std::string whyNot(const std::string& path, const FileProgress& progress, SealedFile* file) {
  const FileProof proof = FileVerifier().verify(path, progress);
  if (!proof.error.empty()) return proof.error;
  if (!proof.proven()) return "it was changed since it was sealed, and gets no other seal";
  if (file->open(path) != SealedFile::State::kSealed) return file->error();
  if (Movable(file).all()) return "";
  return "what stands behind its seals cannot move: it has no room for another";
}

}  // namespace

bool sealFile(const std::string& path, const SealRequest& request, std::string* error) {
  return sealFile(path, request, error, {});
}

bool sealFile(const std::string& path, const SealRequest& request, std::string* error,
              const FileProgress& progress) {
  // It is read twice: to see that its seals hold, and for the new one.
  const FileProgress firstHalf = [&progress](uint64_t done, uint64_t all) {
    if (progress) progress(done, 2 * all);
  };
  const FileProgress secondHalf = [&progress](uint64_t done, uint64_t all) {
    if (progress) progress(all + done, 2 * all);
  };
  SealingKey key;
  if (!key.load(request)) {
    *error = key.error();
    return false;
  }
  SealedFile file;
  *error = whyNot(path, firstHalf, &file);
  if (!error->empty()) {
    *error = path + ": " + *error;
    return false;
  }
  size_t signatureAt = 0;
  size_t sealAt = 0;
  const std::vector<uint8_t> seal =
      makeSeal(key, sealWords(request, time(nullptr)), {}, &signatureAt);
  PartFile part(path);
  SealWriter out;
  struct stat info {};
  const bool good = out.create(part.part()) && ::fstat(file.file(), &info) == 0 &&
                    ::fchmod(out.file(), info.st_mode & 0777) == 0 &&
                    copy(&file, 0, file.metaAt(), secondHalf, &out) &&
                    out.write(file.metaAndSeal(seal, &sealAt)) &&
                    copy(&file, file.behindMeta(), file.size(), secondHalf, &out) &&
                    out.sign(&key, file.metaAt() + sealAt + signatureAt);
  if (good) return part.finish(error);
  *error = out.error().empty() ? path + ": " + file.error() : out.error();
  return false;
}

}  // namespace tarn
