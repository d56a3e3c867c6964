// Files that 'tarn verify' and 'tarn seal' are given. The first byte of an input tells which.
// Nothing proves itself but what a key signed, which no input here is.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "media/seal/FileSealer.h"
#include "media/seal/FileVerifier.h"
#include "media/seal/SealedFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr char kPath[] = "/tmp/sealed.mp4";
  if (size == 0) return 0;
  const int fd = open(kPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) abort();
  close(fd);
  const tarn::FileProof proof = tarn::FileVerifier().verify(kPath);
  if (proof.proven() && proof.seals.empty()) abort();
  tarn::SealedFile file;
  if (file.open(kPath) != tarn::SealedFile::State::kSealed) return 0;
  size_t sealAt = 0;
  const size_t seals = file.seals().size();
  for (size_t i = 1; i <= seals; ++i) {
    if (file.metaWith(i).size() < file.seals()[i - 1].end) abort();
  }
  file.metaAndSeal({0, 0, 0, 8, 's', 'i', 'n', 'f'}, &sealAt);
  return 0;
}
