// Files and streams that a recording is asked to take. The first byte of an input tells by which
// way: a file, or standard input; and whether its sound is wanted.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "media/MediaInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr char kPath[] = "/tmp/input";
  constexpr uint8_t kWithSound = 0x02;
  if (size == 0) return 0;
  const bool standardInput = data[0] % 2 != 0;
  const int fd = open(kPath, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) abort();
  // Whoever reads standard input closes it.
  if (standardInput && (lseek(fd, 0, SEEK_SET) != 0 || dup2(fd, STDIN_FILENO) != 0)) abort();
  close(fd);
  std::string error;
  const auto input = tarn::MediaInput::open(
      standardInput ? "-" : kPath, 0, [] { return false; }, &error);
  tarn::MediaPicture picture;
  if (input != nullptr && (data[0] & kWithSound) != 0) input->wantSound();
  for (int i = 0; i < 1000 && input != nullptr; ++i) {
    const tarn::MediaInput::Result came = input->next(&picture);
    if (came == tarn::MediaInput::Result::kSound) {
      if (input->takeSound().frame.empty() || !tarn::isUsable(input->soundFormat())) abort();
      continue;
    }
    if (came != tarn::MediaInput::Result::kPicture) break;
    if (picture.annexB.empty() || picture.decodeUs > picture.presentationUs) abort();
  }
  return 0;
}
