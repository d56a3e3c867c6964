#include "Rig.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>

namespace faults {
namespace {

constexpr uint32_t kSpareRows = 60;  // pictures of two rows that a fault may cost in addition
constexpr char kExported[] = "exported.mp4";

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

Rig::Rig(const std::string& binDir)
    : workplace_(binDir), stage_(workplace_), verdicts_(workplace_) {}

void Rig::add(const Program& program, const std::string& output) {
  programs_.push_back(program);
  outputs_[program.name] = output;
}

std::string Rig::prepare(const std::string& onlyProgram) {
  // A few seconds of real video, for the programs that record and export it.
  workplace_.order({}, kCalmSpeed);
  const bool media = access(workplace_.program("tarn-video").c_str(), X_OK) == 0 &&
                     await(launchForeign(clipArguments()), Workplace::kLimitMs).code == 0;
  if (!media) printf("record and export are left out: no clip can be made here\n");
  programs_ = programsOf(workplace_.bin(), media);
  std::string failure = stage_.make(media);
  if (!failure.empty()) return failure;
  verdicts_.setMayLose({kSpareRows + 1000, kSpareRows + 1000});
  std::array<uint32_t, 2> most = {};
  for (const Program& program : programs_) {
    if (!onlyProgram.empty() && program.name != onlyProgram) continue;
    for (const uint32_t speed : {kSpeed, kSecondSpeed, kCalmSpeed}) {
      bool reached = false;
      failure = run({program.name, kAny, 0, kNone}, speed, &reached);
      if (failure.empty()) break;
    }
    if (!failure.empty()) return program.name + " without a fault: " + failure;
    for (uint32_t op = 0; op < kOps; ++op) counts_[program.name][op] = workplace_.plan().counts[op];
    outputs_[program.name] = printed();
    workplace_.takeLogAsUsual();
    for (size_t i = 0; i < 2; ++i) most[i] = std::max(most[i], verdicts_.lost()[i]);
  }
  verdicts_.setMayLose({most[0] + kSpareRows, most[1] + kSpareRows});
  return "";
}

// What is wrong with how a program ended, by itself.
std::string Rig::explain(const std::string& who, const Ending& ending, const Case& fault) const {
  if (ending.hung) return who + " hangs";
  const bool killed = fault.mode == kKill && workplace_.plan().hits > 0;
  if (ending.signalled) {
    if (killed && ending.code == SIGKILL) return "";
    return who + " ends by signal " + std::to_string(ending.code) + " (" +
           firstLine(readFile(workplace_.path("errors"))) + ")";
  }
  // What runs inside another one ends for it as a shell has it.
  if (killed && ending.code == 128 + SIGKILL) return "";
  if (ending.code != goodCode_ &&
      workplace_.complaints().find_first_not_of(" \n") == std::string::npos)
    return who + " ends with " + std::to_string(ending.code) + " without a word";
  return "";
}

void Rig::begin(const Program& program, const Case& fault, uint32_t speed) {
  stage_.at(program.scene).restore();
  workplace_.clear(stage_.at(program.scene).promises());
  unlink(workplace_.path(kExported).c_str());
  writeFile(workplace_.path("input"), program.input);
  goodCode_ = program.goodCode;
  workplace_.order(fault, speed);
}

std::string Rig::runProgram(const Program& program, const Case& fault, Ending* ending) {
  bool ready = true;
  const pid_t server = program.beside ? workplace_.startServer(false, &ready) : 0;
  if (!ready)
    return "the server beside it does not start: " + readFile(workplace_.path("other-log"));
  Launch how = workplace_.with(program.arguments, true);
  how.input = program.input.empty() ? "" : workplace_.path("input");
  *ending = workplace_.run(how);
  if (program.findsByCode != 0 && ending->code == program.findsByCode)
    writeFile(workplace_.path("findings"), readFile(workplace_.path("output")));
  std::string failure = explain(program.name, *ending, fault);
  if (!program.beside) return failure;
  const Ending served = workplace_.stop(server);
  if (!failure.empty()) return failure;
  if (served.hung) return "the server beside it hangs";
  if (!served.signalled && served.code == 0) return "";
  return "the server beside it fails: " + readFile(workplace_.path("other-log"));
}

// The recorder beside it has no fault of its own, but must notice a server that is in trouble.
std::string Rig::runServer(const Case& fault, Ending* ending) {
  bool ready = false;
  const pid_t server = workplace_.startServer(true, &ready);
  std::string failure;
  if (ready) {
    *ending = workplace_.run(workplace_.with(
        {workplace_.program("faults_recorder"), "life", "3", std::to_string(kLifePictures), "edit"},
        false));
    if (ending->hung) {
      failure = "the recorder beside it hangs";
    } else if (ending->signalled) {
      failure = "the recorder beside it ends by signal " + std::to_string(ending->code);
    } else if (ending->code != 0 && readFile(workplace_.path("other-errors")).empty()) {
      failure = "the recorder beside it fails without a word";
    }
  }
  const Ending served = workplace_.stop(server);
  const std::string serverFailure = explain("the server", served, fault);
  const bool good = !served.hung && !served.signalled && served.code == 0;
  if (!good && ending->code == 0) *ending = served;
  if (!ready && good) return "the server ends with 0 and was never ready";
  return serverFailure.empty() ? failure : serverFailure;
}

std::string Rig::printed() const {
  return readFile(workplace_.path("output")) + readFile(workplace_.path(kExported));
}

// Readers: the card is as it was, and what they print is the whole truth or an error.
std::string Rig::judgeOutput(const Program& program, const Ending& ending) const {
  const std::string where = stage_.at(program.scene).cardDiffers();
  if (!where.empty() && !program.beside) return "the card was changed at " + where;
  if (ending.signalled || ending.code != 0) return "";
  const auto wanted = outputs_.find(program.name);
  if (wanted == outputs_.end() || printed() == wanted->second) return "";
  return "it ends with 0 and prints something else";
}

// What a program told on its standard output counts, however it ended.
void Rig::promiseWhatWasSaid() {
  std::istringstream lines(readFile(workplace_.path("output")));
  unsigned written = 0, safe = 0;
  for (std::string line; std::getline(lines, line);)
    sscanf(line.c_str(), "%u pictures written, %u safe", &written, &safe);
  workplace_.addPromises("clip " + std::to_string(safe) + "\n");
}

// After the program, which ended well but for `failure`.
std::string Rig::finish(const Program& program, const Case& fault, const Ending& ending,
                        std::string failure) {
  const bool good = !ending.hung && !ending.signalled && ending.code == goodCode_;
  if (program.tellsSafe) promiseWhatWasSaid();
  if (good) {
    std::string lines;
    for (const std::string& line : program.promisesAtEnd) lines += line + "\n";
    workplace_.addPromises(lines);
    const std::string promises = readFile(workplace_.path("promises"));
    if (failure.empty() && promises.find(program.wholeLife) == std::string::npos)
      failure = "it ends with 0 before its work is done";
  }
  show("program");
  // What a menu changes has no result of its own: the log tells.
  const bool strict = workplace_.complaints().empty();
  // A card whose format failed is formatted once more.
  if (failure.empty() && program.kind == Program::Kind::kFormats && !good) {
    workplace_.order({}, kSpeed);
    failure = workplace_.must(program.arguments);
  }
  if (!failure.empty()) return failure;
  if (program.kind == Program::Kind::kReads) return judgeOutput(program, ending);
  // What ended well is there without a start of the machine; a program that was killed is started
  // again with or without one.
  const bool stays = good || (fault.mode == kKill && fault.number % 2 == 0);
  return verdicts_.judge(stage_.at(program.scene), stays, strict);
}

std::string Rig::run(const Case& fault, uint32_t speed, bool* reached) {
  const auto program = std::find_if(programs_.begin(), programs_.end(), [&](const Program& each) {
    return each.name == fault.program;
  });
  if (program == programs_.end()) return "there is no such program";
  begin(*program, fault, speed);
  workplace_.beginGroup();
  Ending ending;
  std::string failure = program->kind == Program::Kind::kServes
                            ? runServer(fault, &ending)
                            : runProgram(*program, fault, &ending);
  *reached = workplace_.plan().hits > 0;
  failure = finish(*program, fault, ending, failure);
  show("judge");
  workplace_.endGroup();
  return failure;
}

}  // namespace faults
