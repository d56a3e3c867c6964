#include "media/archive/SealCheck.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/UniqueFd.h"
#include "media/seal/SealedFile.h"
#include "recorder/card/DeviceIo.h"

namespace tarn {

bool SealCheck::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool SealCheck::trust(const std::vector<std::string>& authorities) {
  for (const std::string& path : authorities) {
    if (!verifier_.trust(path, &error_)) return false;
    trusts_ = true;
  }
  return true;
}

// A clip that is another one's, with its sidecar changed to fit, still says which one it is.
std::string SealCheck::whyNot(const std::string& path, const ArchiveLine& line) const {
  SealedFile file;
  if (file.open(path) == SealedFile::State::kUnsealed)
    return line.sealed ? "has lost its seal" : "has no seal";
  const FileProof proof = verifier_.verify(path);
  if (!proof.readable || !proof.error.empty())
    return "has a seal that cannot be read: " + proof.error;
  for (const SealProof& seal : proof.seals) {
    if (!seal.unchanged) return "is not what was sealed: " + seal.reason;
    if (!seal.good())
      return "is sealed, and nobody who is trusted vouches for it: " + seal.chainReason;
  }
  for (const ExportStatement::Source& source : file.statement().sources) {
    if (source.url != line.object) return "was sealed as " + source.url;
  }
  return file.statement().unitName == line.recorder ? "" : "was sealed by another recorder";
}

bool SealCheck::prove(const ArchiveLine& line, std::string* finding) {
  const std::string local = store_->localPath(line.object);
  if (!local.empty()) {
    *finding = whyNot(local, line);
    return true;
  }
  std::error_code none;
  const std::string folder = std::filesystem::temp_directory_path(none).string();
  const UniqueFd copy(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!copy.valid()) return fail("cannot keep a clip in " + folder + ": " + strerror(errno));
  uint64_t at = 0;
  uint64_t failed = 0;
  int reason = 0;
  const auto keep = [&](const uint8_t* data, size_t size) {
    if (!writeFully(copy.get(), at, data, size, &failed)) reason = errno;
    at += size;
    return reason == 0;
  };
  if (!store_->get(line.object, keep))
    return fail(reason == 0 ? store_->error()
                            : "cannot keep a clip in " + folder + ": " + strerror(reason));
  *finding = whyNot("/proc/self/fd/" + std::to_string(copy.get()), line);
  return true;
}

}  // namespace tarn
