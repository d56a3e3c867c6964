#include "media/MediaInput.h"

#include "media/ContainerInput.h"
#include "media/StreamInput.h"

namespace tarn {

std::unique_ptr<MediaInput> MediaInput::open(const std::string& path, double frameRate,
                                             StopAsked stopAsked, std::string* error) {
  if (path == "-") return StreamInput::open(0, frameRate, stopAsked, error);
  return ContainerInput::open(path, frameRate, stopAsked, error);
}

}  // namespace tarn
