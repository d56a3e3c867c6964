#include "media/MediaInput.h"

#include "media/ContainerInput.h"
#include "media/InputBytes.h"
#include "media/StreamInput.h"

namespace tarn {
namespace {

constexpr char kOverUdp[] = "rtsp+udp://";

constexpr size_t kProbeBytes = 2048;  // ten packets of a transport stream

// A byte stream that begins with a unit of one.
bool beginsWithUnit(const std::vector<uint8_t>& bytes) {
  constexpr uint8_t kForbidden = 0x80;
  size_t zeros = 0;
  while (zeros < bytes.size() && bytes[zeros] == 0) ++zeros;
  return zeros >= 2 && zeros + 1 < bytes.size() && bytes[zeros] == 1 &&
         (bytes[zeros + 1] & kForbidden) == 0;
}

// What is not known for a container is taken for a byte stream that is joined in its middle.
bool isContainer(std::vector<uint8_t> bytes) {
  static constexpr const char* kKnown[] = {"mpegts", "mpeg", "matroska", "mov", "flv", "avi"};
  AVProbeData probe = {};
  probe.filename = "";
  probe.buf_size = static_cast<int>(bytes.size());
  bytes.resize(bytes.size() + AVPROBE_PADDING_SIZE);
  probe.buf = bytes.data();
  int score = 0;
  const AVInputFormat* format = av_probe_input_format3(&probe, 1, &score);
  if (format == nullptr) return false;
  const std::string names = std::string(format->name) + ",";
  for (const char* known : kKnown) {
    if (names.rfind(std::string(known) + ",", 0) == 0) return true;
  }
  return false;
}

std::unique_ptr<MediaInput> openStandardInput(double frameRate, const StopAsked& stopAsked,
                                              std::string* error) {
  auto bytes = std::make_unique<InputBytes>(UniqueFd(0), stopAsked);
  // A slow encoder's first picture may be small, and must not wait for the next ones.
  const bool bare = beginsWithUnit(bytes->ahead(8)) || !isContainer(bytes->ahead(kProbeBytes));
  if (bare) return StreamInput::open(std::move(bytes), frameRate, error);
  return ContainerInput::open(std::move(bytes), frameRate, stopAsked, error);
}

}  // namespace

bool MediaInput::isAddress(const std::string& path) {
  return path.rfind("rtsp://", 0) == 0 || path.rfind("rtsps://", 0) == 0 || isOverUdp(path);
}

bool MediaInput::isOverUdp(const std::string& address) { return address.rfind(kOverUdp, 0) == 0; }

std::unique_ptr<MediaInput> MediaInput::open(const std::string& path, double frameRate,
                                             StopAsked stopAsked, std::string* error) {
  if (path == "-") return openStandardInput(frameRate, stopAsked, error);
  return ContainerInput::open(path, frameRate, std::move(stopAsked), error);
}

}  // namespace tarn
