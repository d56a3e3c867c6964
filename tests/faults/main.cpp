// faults: fails every call of the recorder's programs in its turn, in a view of its own.
//   faults BIN_DIR [--part I/N] [--all] [--program P] [--op O] [--case NAME] [--every N] [--prove]
//   [--list]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Proof.h"
#include "Rig.h"

namespace faults {
namespace {

struct Options {
  std::string bin, program, op, oneCase;
  unsigned part = 0, parts = 1;
  unsigned every = 1;
  bool all = false, prove = false, list = false;
};

struct Tally {
  uint32_t run = 0, reached = 0, second = 0, failed = 0;
};

bool parse(int argc, char** argv, Options* options) {
  if (argc < 2) return false;
  options->bin = argv[1];
  for (int i = 2; i < argc; ++i) {
    const std::string name = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : "";
    if (name == "--all") {
      options->all = true;
    } else if (name == "--prove") {
      options->prove = true;
    } else if (name == "--list") {
      options->list = true;
    } else if (name == "--part") {
      if (sscanf(value, "%u/%u", &options->part, &options->parts) != 2) return false;
      ++i;
    } else if (name == "--every") {
      options->every = static_cast<unsigned>(strtoul(value, nullptr, 10));
      if (options->every == 0) return false;
      ++i;
    } else if (name == "--program" || name == "--case" || name == "--op") {
      (name == "--program" ? options->program
       : name == "--op"    ? options->op
                           : options->oneCase) = value;
      ++i;
    } else {
      return false;
    }
  }
  return true;
}

int runOne(Rig* rig, const Case& fault) {
  bool reached = false;
  rig->setVerbose();
  const std::string failure = rig->run(fault, kSpeed, &reached);
  printf("%s: %s%s\n", fault.name().c_str(), failure.empty() ? "good" : failure.c_str(),
         reached ? "" : " (the call was not made)");
  return failure.empty() ? 0 : 1;
}

// A machine that is busy may make waiting longer than it is meant to be: what fails is tried once
// more with less of it cut away.
void runCase(Rig* rig, const Case& fault, Tally* tally) {
  bool reached = false;
  ++tally->run;
  std::string failure = rig->run(fault, kSpeed, &reached);
  if (!failure.empty()) {
    const std::string first = failure;
    failure = rig->run(fault, kSecondSpeed, &reached);
    if (failure.empty()) {
      ++tally->second;
      printf("SECOND TRY %s: %s\n", fault.name().c_str(), first.c_str());
    }
  }
  tally->reached += reached ? 1 : 0;
  if (failure.empty()) return;
  ++tally->failed;
  printf("FAILED --case %s: %s\n", fault.name().c_str(), failure.c_str());
  fflush(stdout);
}

int runAll(Rig* rig, const Options& options) {
  bool failed = false;
  size_t turn = 0;
  for (const Program& program : rig->programs()) {
    if (!options.program.empty() && program.name != options.program) continue;
    std::vector<Case> cases = casesOf(program.name, rig->counts(program.name));
    if (!options.all) cases = sampleOf(cases);
    Tally tally;
    const uint32_t judgedBefore = rig->judged();
    size_t number = 0;
    for (const Case& fault : cases) {
      if (!options.all && number++ % program.sampleEvery != 0) continue;
      if (!options.op.empty() && options.op != kOpNames[fault.op]) continue;
      if (fault.op == kMemory && fault.number % (options.every * program.memoryEvery) != 0)
        continue;
      if (turn++ % options.parts != options.part) continue;
      if (options.list) {
        printf("%s\n", fault.name().c_str());
      } else {
        runCase(rig, fault, &tally);
      }
    }
    if (!options.list) {
      printf("TALLY %s %u %u %u %u %u\n", program.name.c_str(), tally.run, tally.reached,
             tally.second, tally.failed, rig->judged() - judgedBefore);
    }
    fflush(stdout);
    failed = failed || tally.failed != 0;
  }
  return failed ? 1 : 0;
}

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, &options)) return 2;
  Case fault;
  if (!options.oneCase.empty() && !Case::parse(options.oneCase, &fault)) {
    fprintf(stderr, "faults: %s is no case\n", options.oneCase.c_str());
    return 2;
  }
  Rig rig(options.bin);
  const std::string failure =
      rig.prepare(options.oneCase.empty() ? options.program : fault.program);
  if (!failure.empty()) {
    printf("FAILED %s\n", failure.c_str());
    return 1;
  }
  if (options.prove) {
    const std::vector<std::string> unseen = Proof(&rig).run();
    return unseen.empty() ? 0 : 1;
  }
  return options.oneCase.empty() ? runAll(&rig, options) : runOne(&rig, fault);
}

}  // namespace
}  // namespace faults

int main(int argc, char** argv) { return faults::main(argc, argv); }
