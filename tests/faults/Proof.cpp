#include "Proof.h"

#include <cstdio>

#include "Content.h"

namespace faults {
namespace {

constexpr char kScene[] = "stopped";
constexpr int kLittlePatienceMs = 1000;

}  // namespace

void Proof::expect(bool seen, const std::string& what) {
  if (!seen) unseen_.push_back(what);
  printf("%s %s\n", seen ? "seen" : "NOT SEEN", what.c_str());
}

// An oracle that is fed with something wrong must say so.
bool Proof::seesBrokenPromise(const std::string& promise, bool loseOldest) {
  const Scene& scene = rig_.stage().at(kScene);
  scene.restore();
  rig_.workplace()->clear(scene.promises() + promise + "\n");
  Verdicts* verdicts = rig_.verdicts();
  const std::array<uint32_t, 2> mayLose = verdicts->mayLose();
  if (loseOldest) verdicts->setMayLose({});
  const bool seen = !verdicts->judge(scene, false, true).empty();
  verdicts->setMayLose(mayLose);
  return seen;
}

// One bit of a picture that was safe.
bool Proof::seesOtherByte() {
  const Scene& scene = rig_.stage().at(kScene);
  scene.restore();
  const std::vector<uint8_t> picture = pictureBytes({2, 1, 7});
  std::string card = readFile(kCard);
  const size_t place = card.find(std::string(picture.begin(), picture.end()));
  if (place == std::string::npos) return false;
  card[place + picture.size() - 1] ^= 1;
  writeFile(kCard, card);
  rig_.workplace()->clear(scene.promises() + "\n");
  return !rig_.verdicts()->judge(scene, false, true).empty();
}

bool Proof::seesBadProgram(const std::string& how) {
  Program bad;
  bad.name = how;
  bad.scene = kScene;
  if (how == "scribble" || how == "differ") bad.kind = Program::Kind::kReads;
  bad.arguments = {rig_.workplace()->program("faults_recorder"), "bad", how};
  bad.wholeLife = "done well";
  rig_.add(bad, "what it should print");
  bool reached = false;
  rig_.workplace()->setLimit(kLittlePatienceMs);
  const bool seen = !rig_.run({how, kAny, 0, kNone}, kSpeed, &reached).empty();
  rig_.workplace()->setLimit(Workplace::kLimitMs);
  return seen;
}

std::vector<std::string> Proof::run() {
  expect(!seesBrokenPromise("", false), "that nothing is wrong where nothing is");
  // The same card and promises but for this: judged anew, though the ones above were good.
  for (const char* promise : {"safe 2 0 41", "safe 3 1 46", "event 5 5 21", "updated 9 12",
                              "deleted 9", "event-deleted 5", "line 999", "clip 2", "kept 3 0 0 5"})
    expect(seesBrokenPromise(promise, false),
           std::string("a promise that is not kept: ") + promise);
  expect(seesBrokenPromise("begun 999 3 0 5", false), "an event that is lost");
  expect(seesBrokenPromise("", true), "more of the oldest that is lost than room was needed");
  expect(seesOtherByte(), "a picture with another byte");
  for (const char* bad : {"silent", "crash", "hang", "spin", "early", "scribble", "differ"})
    expect(seesBadProgram(bad), std::string("a program that is bad: ") + bad);
  return unseen_;
}

}  // namespace faults
