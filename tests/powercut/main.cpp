// Makes and checks the states that a card can have when power goes. tests/powercut/run starts it in
// a view of its own.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/Omission.h"
#include "powercut/Checks.h"
#include "powercut/Program.h"
#include "powercut/ReadFaults.h"
#include "powercut/States.h"
#include "powercut/Workload.h"

namespace powercut {
namespace {

constexpr uint64_t kBetweenVolumeChecks = 250;
constexpr uint64_t kNear = 8;  // a change of the code moves states a little
FILE* g_report = stdout;

// Nothing depends on the zone: variants take turns in two of them, one with summer time.
const char* zoneOf(const std::string& workload) {
  const bool odd = !workload.empty() && (workload.back() - '0') % 2 == 1;
  return odd ? "NST3:30NDT,M3.2.0,M11.1.0" : "XYZ-02:00";
}

struct Options {
  std::string workload;
  bool one = false;
  uint64_t state = 0;
  uint64_t goal = 0;  // distinct states to run; 0: all
  uint64_t seed = 1;
  bool firstFailure = false;  // ends the run
  uint64_t near = 0;          // before all others, the states around this one
  uint64_t failures = 10;     // shown
  std::vector<std::string> leftOut;
};

// Runs the chosen states of one life, and reports.
class Run {
 public:
  Run(const std::string& name, const Recorded& life, const Options& options)
      : name_(name), life_(life), options_(options), checker_(life) {}

  void all() {
    const uint64_t total =
        life_.isRefusal ? ReadFaults::count(life_) : States::count(life_, options_.seed);
    if (options_.firstFailure) {
      walk([&](uint64_t number, uint64_t distinct) {
        last_ = distinct + 1 == total;
        return failures_ == 0 && isNear(number);
      });
    }
    const uint64_t goal = options_.goal == 0 ? total : std::min(options_.goal, total);
    // Evenly spread; which ones depends on the seed.
    auto step = [&](uint64_t distinct) { return (distinct + options_.seed) * goal / total; };
    walk([&](uint64_t number, uint64_t distinct) {
      if (options_.one) return number == options_.state;
      if (options_.firstFailure && (failures_ > 0 || isNear(number))) return false;
      // The last state, in which the life ended well, is always among them.
      last_ = distinct + 1 == total;
      return last_ || step(distinct) != step(distinct + 1);
    });
    if (!options_.one) summary(total);
  }
  uint64_t ran() const { return ran_; }
  uint64_t failures() const { return failures_; }

 private:
  void walk(const States::Visit& visit) {
    const States::Run run = [&](const State& state) { one(state); };
    if (life_.isRefusal) {
      ReadFaults(life_).walk(visit, run);
    } else {
      States(life_, options_.seed).walk(visit, run);
    }
  }

  bool isNear(uint64_t number) const {
    return number + kNear >= options_.near && number <= options_.near + kNear;
  }

  void one(const State& state) {
    cards_.insert(state.content);
    keepLog(options_.one);
    std::string failure = life_.isRefusal ? checker_.checkRefused(state.fault)
                                          : checker_.check(state.cut, state.flushed);
    // A format that lost power may leave no file system at all.
    const bool whole = !life_.isFormat || last_ || state.number == 0;
    const bool checkVolume = whole && (options_.one || last_ || ran_ % kBetweenVolumeChecks == 0);
    if (failure.empty() && checkVolume) failure = checker_.checkFileSystem();
    ++ran_;
    const std::string log = takeLog();
    if (options_.one) {
      fprintf(g_report, "%s%s state %llu: %s: %s\n", log.c_str(), name_.c_str(),
              static_cast<unsigned long long>(state.number), whatHappens(state).c_str(),
              failure.empty() ? "good" : "FAILED");
    }
    if (!failure.empty() && ++failures_ <= options_.failures) complain(state, failure);
  }

  std::string whatHappens(const State& state) const {
    if (life_.isRefusal) return describe(life_, state.fault);
    return "operations " + std::to_string(state.cut.at) + ", flushed " +
           std::to_string(state.cut.flush);
  }

  void complain(const State& state, const std::string& failure) const {
    const std::string fault = life_.isRefusal ? whatHappens(state) + ": " : "";
    fprintf(g_report, "FAILED --workload %s --state %llu%s: %s%s\n", name_.c_str(),
            static_cast<unsigned long long>(state.number),
            options_.seed == 1 ? "" : (" --seed " + std::to_string(options_.seed)).c_str(),
            fault.c_str(), failure.c_str());
    fflush(g_report);
  }

  void summary(uint64_t total) const {
    const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    if (life_.isRefusal) {
      fprintf(g_report, "%s: reads %zu, states %llu, tried %llu, stopped %llu, failed %llu\n",
              name_.c_str(), life_.reads.size(), number(total), number(ran_),
              number(checker_.stops()), number(failures_));
      fflush(g_report);
      return;
    }
    fprintf(g_report,
            "%s: operations %zu, states %llu, run %llu, contents %llu, recovered %llu, volumes "
            "%llu, failed %llu\n",
            name_.c_str(), life_.trace.ops.size(), number(total), number(ran_),
            number(cards_.size()), number(checker_.recoveredCards()),
            number(checker_.fileSystemChecks()), number(failures_));
    fflush(g_report);
  }

  const std::string name_;
  const Recorded& life_;
  const Options options_;
  Checker checker_;
  std::unordered_set<uint64_t> cards_;
  uint64_t ran_ = 0;
  uint64_t failures_ = 0;
  bool last_ = false;
};

const char* value(int argc, char** argv, int* i) {
  if (*i + 1 < argc) return argv[++*i];
  fprintf(stderr, "powercut: %s needs a value\n", argv[*i]);
  exit(2);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--workload") {
      options.workload = value(argc, argv, &i);
    } else if (arg == "--state") {
      options.one = true;
      options.state = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--states") {
      options.goal = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--seed") {
      options.seed = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--failures") {
      options.failures = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--first-failure") {
      options.firstFailure = true;
    } else if (arg == "--near") {
      options.near = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--slot") {
      stayOnProcessor(strtoul(value(argc, argv, &i), nullptr, 10));
#ifdef TARN_OMISSIONS
    } else if (arg == "--omit-step") {
      options.leftOut.emplace_back(value(argc, argv, &i));
#endif
    } else if (arg == "--list") {
      const auto has = [&](const char* wanted) {
        return std::any_of(argv + i, argv + argc,
                           [&](char* at) { return strcmp(at, wanted) == 0; });
      };
      const bool reads = has("--reads");
      for (const std::string& name :
           reads ? readWorkloadNames(has("--all")) : workloadNames(has("--all"))) {
        puts(name.c_str());
      }
      exit(0);
    } else {
      fprintf(stderr, "powercut: unknown option %s\n", arg.c_str());
      exit(2);
    }
  }
  return options;
}

#ifdef TARN_OMISSIONS
void leaveOut(const std::vector<std::string>& steps, bool leftOut) {
  for (const std::string& step : steps) {
    tarn::leaveOut(step.c_str(), leftOut);
  }
}

// A recorder that does not even start without a step records with it.
Recorded recordWith(const Options& options) {
  leaveOut(options.leftOut, true);
  try {
    return recordWorkload(options.workload);
  } catch (const std::exception&) {
    leaveOut(options.leftOut, false);
  }
  Recorded life = recordWorkload(options.workload);
  leaveOut(options.leftOut, true);
  return life;
}
#else
Recorded recordWith(const Options& options) { return recordWorkload(options.workload); }
#endif

int run(int argc, char** argv) {
  const Options options = parse(argc, argv);
  g_report = muteStandardOutput();
  setenv("TZ", zoneOf(options.workload), 1);
  tzset();
  const Recorded life = recordWith(options);
  Run all(options.workload, life, options);
  all.all();
  if (all.ran() == 0) {
    fprintf(stderr, "powercut: no such state\n");
    return 2;
  }
  return all.failures() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace powercut

int main(int argc, char** argv) {
  try {
    return powercut::run(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "powercut: %s\n", error.what());
    return 2;
  }
}
