#include "Stage.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <vector>

#include "Programs.h"

namespace faults {
namespace {

constexpr size_t kCardBytes = 40 * 1024 * 1024;

}  // namespace

void Stage::take(const std::string& name) {
  scenes_[name].take(readFile(workplace_.path("promises")));
}

std::string Stage::besideServer(const std::vector<std::string>& arguments) {
  bool ready = false;
  const pid_t server = workplace_.startServer(false, &ready);
  const std::string failure = workplace_.must(arguments);
  workplace_.stop(server);
  return failure;
}

// An old session, and one that lost power.
std::string Stage::makeCrashed() {
  const std::string recorder = workplace_.program("faults_recorder");
  std::string failure = workplace_.must(formatArguments(workplace_.bin(), kChunks));
  if (failure.empty()) failure = workplace_.must({workplace_.tool(), "recover"});
  bool ready = false;
  const pid_t server = workplace_.startServer(false, &ready);
  if (failure.empty()) failure = workplace_.must({recorder, "life", "1", "180"});
  if (failure.empty())
    failure = workplace_.must({recorder, "life", "2", "40", "stop-before-close"});
  kill(server, SIGKILL);
  await(server, Workplace::kLimitMs);
  loseMemory();
  take("crashed");
  return failure;
}

// What was recorded there belongs to this scene alone.
std::string Stage::makeClipped() {
  const std::string failure = besideServer(recordArguments(workplace_.bin()));
  scenes_["clipped"].take(scenes_["started"].promises());
  scenes_["started"].restore();
  return failure;
}

// A whole life and a clean stop.
std::string Stage::makeStopped() {
  std::string failure = besideServer(
      {workplace_.program("faults_recorder"), "life", "3", std::to_string(kLifePictures), "edit"});
  take("stopped");
  if (failure.empty()) failure = workplace_.must({workplace_.tool(), "save"});
  loseMemory();
  take("saved");
  return failure;
}

// A card with room for copies beside what is recorded next.
std::string Stage::makeKept() {
  const std::string tarn = workplace_.tool();
  makeBlank();
  std::string failure = workplace_.must(formatArguments(workplace_.bin(), kKeepChunks));
  if (failure.empty()) failure = workplace_.must({tarn, "recover"});
  if (failure.empty())
    failure = besideServer({workplace_.program("faults_recorder"), "life",
                            std::to_string(kKeepSession), std::to_string(kLifePictures)});
  take("keepable");
  if (failure.empty()) failure = besideServer(keepArguments(workplace_.bin()));
  workplace_.addPromises("releasing\n");
  take("kept");
  loseMemory();
  return failure;
}

void Stage::makeBlank() {
  loseMemory();
  writeFile(workplace_.path("promises"), "");
  // Without pages of its own where nothing was written, as each look at the card reads them.
  writeFile(kCard, "");
  if (truncate(kCard, static_cast<off_t>(kCardBytes)) != 0) abort();
}

std::string Stage::make(bool media) {
  const std::string failure = makeKept();
  if (!failure.empty()) return failure;
  makeBlank();
  scenes_["blank"].take("");
  return makeLives(media);
}

std::string Stage::makeLives(bool media) {
  std::string failure = makeCrashed();
  if (failure.empty()) failure = workplace_.must({workplace_.tool(), "recover"});
  take("started");
  if (failure.empty() && media) failure = makeClipped();
  return failure.empty() ? makeStopped() : failure;
}

}  // namespace faults
