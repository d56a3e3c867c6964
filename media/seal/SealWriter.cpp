#include "media/seal/SealWriter.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "media/seal/SealingKey.h"
#include "recorder/card/DeviceIo.h"

namespace tarn {

bool SealWriter::fail(int code) {
  error_ = "cannot write " + path_ + ": " + strerror(code);
  return false;
}

bool SealWriter::create(const std::string& path) {
  path_ = path;
  file_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  return file_.valid() || fail(errno);
}

bool SealWriter::writeAt(uint64_t at, const uint8_t* data, size_t size) {
  uint64_t failed = 0;
  return writeFully(file_.get(), at, data, size, &failed) || fail(errno);
}

bool SealWriter::write(const uint8_t* data, size_t size) {
  if (!writeAt(written_, data, size)) return false;
  digest_.add(data, size);
  written_ += size;
  return true;
}

bool SealWriter::sign(SealingKey* key, uint64_t signatureAt) {
  Digest::Value digest{};
  std::vector<uint8_t> signature;
  if (!digest_.finish(&digest)) {
    error_ = "cannot work out a checksum: " + cryptoError();
    return false;
  }
  if (!key->sign(digest, &signature)) {
    error_ = key->error();
    return false;
  }
  if (!writeAt(signatureAt, signature.data(), signature.size())) return false;
  return file_.close() == 0 || fail(errno);
}

}  // namespace tarn
