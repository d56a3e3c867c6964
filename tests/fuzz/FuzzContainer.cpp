// Files and streams that a recording is asked to take.
#include <fcntl.h>
#include <unistd.h>

#include "fuzz/Muted.h"
#include "media/Av.h"
#include "media/MediaInput.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  av_log_set_level(AV_LOG_QUIET);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr char kPath[] = "/tmp/input";
  const int fd = open(kPath, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) __builtin_trap();
  close(fd);
  std::string error;
  const auto input = tarn::MediaInput::open(
      kPath, 0, [] { return false; }, &error);
  tarn::MediaPicture picture;
  for (int i = 0; i < 1000 && input != nullptr; ++i) {
    if (input->next(&picture) != tarn::MediaInput::Result::kPicture) break;
    if (picture.annexB.empty()) __builtin_trap();
  }
  return 0;
}
