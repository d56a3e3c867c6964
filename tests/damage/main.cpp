// Damages a small card in one place at a time and looks at what that costs. tests/damage/run starts
// it in a view of its own.

#include <fnmatch.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "damage/Cases.h"
#include "damage/Judge.h"
#include "damage/SmallCard.h"
#include "powercut/CardTrace.h"
#include "powercut/Program.h"

namespace damage {
namespace {

using powercut::Card;

// Of one case: seconds of processor time, and on the clock, which a busy machine may use up.
constexpr time_t kPatience = 60;
constexpr unsigned kLongPatience = 15 * 60;
FILE* g_report = stdout;
char g_case[128] = "the undamaged card";

struct Options {
  std::string one;     // pattern of names; only these
  size_t sectors = 0;  // so many of their cases, evenly spread; 0: all
  size_t bits = 0;
  size_t shard = 0;
  size_t shards = 1;
  std::string knownFile;
  bool list = false;
};

// Damage for which a limit is stated: those cases may fail with that result, and are counted apart.
class KnownLimits {
 public:
  // Lines of two patterns: the case's name and what happens.
  void read(const std::string& path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error("no " + path);
    for (std::string line; std::getline(file, line);) {
      if (!line.empty() && line[0] != '#') patterns_.push_back(line);
    }
  }
  bool has(const std::string& name, const std::string& reason) const {
    const std::string both = name + " " + reason;
    return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
      return fnmatch(pattern.c_str(), both.c_str(), 0) == 0;
    });
  }

 private:
  std::vector<std::string> patterns_;
};

struct Count {
  size_t cases, whole, lost, refused, known, failed;
};

// A case that crashes or hangs is named before it ends the run.
void nameTheCase(int signal) {
  char line[256];
  const int length = snprintf(line, sizeof line, "FAILED --case %s: %s\n", g_case,
                              signal == SIGALRM || signal == SIGPROF ? "hangs" : "crashes");
  if (write(STDERR_FILENO, line, static_cast<size_t>(length)) < 0) _exit(3);
  _exit(3);
}

// Not at all: 0.
void limitTo(time_t seconds) {
  const itimerval limit = {{0, 0}, {seconds, 0}};
  setitimer(ITIMER_PROF, &limit, nullptr);
  alarm(seconds == 0 ? 0 : kLongPatience);
}

std::vector<Case> spread(const std::vector<Case>& all, size_t wanted) {
  if (wanted == 0 || wanted >= all.size()) return all;
  std::vector<Case> some;
  for (size_t i = 0; i < wanted; ++i) some.push_back(all[i * all.size() / wanted]);
  return some;
}

class Run {
 public:
  Run(const SmallCard& card, const std::vector<Region>& regions, const Options& options)
      : regions_(regions), options_(options), judge_(card, regions) {
    if (!options.knownFile.empty()) known_.read(options.knownFile);
  }

  void all(const std::vector<Case>& cases) {
    for (size_t i = 0; i < cases.size(); ++i) {
      const std::string name = nameOf(regions_, cases[i]);
      const bool mine = options_.one.empty() ? i % options_.shards == options_.shard
                                             : fnmatch(options_.one.c_str(), name.c_str(), 0) == 0;
      if (mine && options_.list) fprintf(g_report, "%s\n", name.c_str());
      if (mine && !options_.list) one(cases[i], name);
    }
  }

  size_t ran() const { return ran_; }
  size_t failures() const { return failures_; }

  void summary() const {
    for (const auto& [region, count] : counts_) {
      fprintf(g_report, "region %s %zu %zu %zu %zu %zu %zu\n", region.c_str(), count.cases,
              count.whole, count.lost, count.refused, count.known, count.failed);
    }
  }

 private:
  bool isSingle() const {
    return !options_.one.empty() && options_.one.find('*') == std::string::npos;
  }

  void one(const Case& which, const std::string& name) {
    snprintf(g_case, sizeof g_case, "%s", name.c_str());
    limitTo(kPatience);
    load(judge_.wholeOf(which));
    powercut::keepLog(isSingle());
    std::string reason;
    const Outcome outcome = judge_.judge(which, &reason);
    Card::get().rollBack(0);
    limitTo(0);
    const bool known = outcome == Outcome::kFailed && known_.has(name, reason);
    count(which, outcome, known);
    if (isSingle()) show(name, outcome, reason);
    if (outcome != Outcome::kFailed || known) return;
    ++failures_;
    fprintf(g_report, "FAILED --case %s: %s\n", name.c_str(), reason.c_str());
    fflush(g_report);
  }

  void load(const Whole& whole) {
    if (loaded_ == &whole) return;
    Card::get().load(whole.card);
    loaded_ = &whole;
  }

  void show(const std::string& name, Outcome outcome, const std::string& reason) const {
    constexpr const char* kWords[] = {"recovered fully", "lost only what the place holds",
                                      "refused", "FAILED"};
    fprintf(g_report, "%s%s: %s%s%s\n", powercut::takeLog().c_str(), name.c_str(),
            kWords[static_cast<int>(outcome)], reason.empty() ? "" : ": ", reason.c_str());
  }

  void count(const Case& which, Outcome outcome, bool known) {
    ++ran_;
    Count& count =
        counts_[std::string(regions_[which.region].name) + (which.isBit() ? ",bits" : ",sectors")];
    ++count.cases;
    count.whole += outcome == Outcome::kWhole ? 1 : 0;
    count.lost += outcome == Outcome::kLost ? 1 : 0;
    count.refused += outcome == Outcome::kRefused ? 1 : 0;
    count.known += known ? 1 : 0;
    count.failed += outcome == Outcome::kFailed && !known ? 1 : 0;
  }

  const std::vector<Region>& regions_;
  const Options& options_;
  Judge judge_;
  KnownLimits known_;
  const Whole* loaded_ = nullptr;
  std::map<std::string, Count> counts_;
  size_t ran_ = 0;
  size_t failures_ = 0;
};

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--list") {
      options.list = true;
      continue;
    }
    const char* value = i + 1 < argc ? argv[++i] : nullptr;
    if (value == nullptr) throw std::runtime_error("unknown, or without its value: " + arg);
    if (arg == "--case") {
      options.one = value;
    } else if (arg == "--sectors") {
      options.sectors = strtoul(value, nullptr, 10);
    } else if (arg == "--bits") {
      options.bits = strtoul(value, nullptr, 10);
    } else if (arg == "--known") {
      options.knownFile = value;
    } else if (arg != "--shard" || sscanf(value, "%zu/%zu", &options.shard, &options.shards) != 2 ||
               options.shards == 0) {
      throw std::runtime_error("unknown option " + arg);
    }
  }
  return options;
}

int run(int argc, char** argv) {
  const Options options = parse(argc, argv);
  g_report = powercut::muteStandardOutput();
  if (options.shards > 1) powercut::stayOnProcessor(options.shard);
  setenv("TZ", "NST3:30NDT,M3.2.0,M11.1.0", 1);
  tzset();
  for (const int signal : {SIGALRM, SIGPROF, SIGSEGV, SIGBUS, SIGABRT, SIGFPE})
    ::signal(signal, nameTheCase);
  const SmallCard card = makeSmallCard();
  const std::vector<Region> regions = allRegions();
  Run all(card, regions, options);
  all.all(spread(sectorCases(regions), options.sectors));
  all.all(spread(bitCases(regions), options.bits));
  if (options.list) return 0;
  if (all.ran() == 0) throw std::runtime_error("no such case");
  if (options.one.empty() || all.ran() > 1) all.summary();
  fflush(g_report);
  return all.failures() == 0 ? 0 : 1;
}

}  // namespace
}  // namespace damage

int main(int argc, char** argv) {
  try {
    return damage::run(argc, argv);
  } catch (const std::exception& error) {
    fprintf(stderr, "damage: %s\n", error.what());
    return 2;
  }
}
