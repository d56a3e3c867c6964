// Makes and checks the states that a card can have when power goes. tests/powercut/run starts it in
// a view of its own.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "powercut/Checks.h"
#include "powercut/States.h"
#include "powercut/Workload.h"

namespace powercut {
namespace {

FILE* g_report = stdout;

// The library talks on standard output; the report goes where that was.
void muteStandardOutput() {
  const int report = dup(STDOUT_FILENO);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (report < 0 || nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0)
    throw std::runtime_error("dup");
  ::close(nowhere);
  g_report = fdopen(report, "w");
}

struct Options {
  std::string workload;
  bool one = false;
  uint64_t state = 0;
  uint64_t goal = 0;  // distinct states to run; 0: all
  uint64_t seed = 1;
  uint64_t shard = 0;
  uint64_t shards = 1;
  uint64_t failures = 10;  // shown
};

// Runs the chosen states of one life. Number of failures.
uint64_t runLife(const std::string& name, const Recorded& life, const Options& options,
                 uint64_t* ran) {
  uint64_t total = 0;
  {
    States counting(life, options.seed);
    counting.walk([](uint64_t, uint64_t) { return false; }, [](uint64_t, Cut) {});
    total = counting.distinct();
  }
  const uint64_t stride = options.goal == 0 || options.goal >= total ? 1 : total / options.goal;
  uint64_t failures = 0;
  uint64_t done = 0;
  States states(life, options.seed);
  Card::get().allow(life.isFormat ? std::vector<std::pair<uint64_t, uint64_t>>() : chunkExtents());
  states.walk(
      [&](uint64_t number, uint64_t distinct) {
        if (options.one) return number == options.state;
        return distinct % stride == options.seed % stride &&
               distinct / stride % options.shards == options.shard;
      },
      [&](uint64_t number, Cut cut) {
        ++done;
        keepLog(options.one);
        const std::string failure = checkState(life, cut, {});
        const std::string log = takeLog();
        if (options.one) {
          fprintf(g_report, "%s%s state %llu: operations %zu, flushed %zu: %s\n", log.c_str(),
                  name.c_str(), static_cast<unsigned long long>(number), cut.at, cut.flush,
                  failure.empty() ? "good" : "FAILED");
        }
        if (failure.empty()) return;
        if (++failures > options.failures) return;
        fprintf(g_report, "FAILED --workload %s --state %llu%s: %s\n", name.c_str(),
                static_cast<unsigned long long>(number),
                options.seed == 1 ? "" : (" --seed " + std::to_string(options.seed)).c_str(),
                failure.c_str());
        fflush(g_report);
      });
  if (!options.one) {
    fprintf(g_report, "%s: operations %zu, states %llu, contents %llu, run %llu, failed %llu\n",
            name.c_str(), life.trace.ops.size(), static_cast<unsigned long long>(total),
            static_cast<unsigned long long>(states.contents()),
            static_cast<unsigned long long>(done), static_cast<unsigned long long>(failures));
    fflush(g_report);
  }
  *ran += done;
  return failures;
}

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
    } else if (arg == "--shard") {
      options.shard = strtoull(value(argc, argv, &i), nullptr, 10);
      options.shards = strtoull(value(argc, argv, &i), nullptr, 10);
    } else if (arg == "--omit") {
      if (!omitFlushesOf(value(argc, argv, &i))) {
        fprintf(stderr, "powercut: no such family\n");
        exit(2);
      }
    } else if (arg == "--list") {
      const bool all = i + 1 < argc && strcmp(argv[i + 1], "--all") == 0;
      for (const std::string& name : workloadNames(all)) puts(name.c_str());
      exit(0);
    } else {
      fprintf(stderr, "powercut: unknown option %s\n", arg.c_str());
      exit(2);
    }
  }
  return options;
}

int run(int argc, char** argv) {
  const Options options = parse(argc, argv);
  muteStandardOutput();
  setenv("TZ", "XYZ-02:00", 1);
  uint64_t ran = 0;
  const Recorded life = recordWorkload(options.workload);
  const uint64_t failures = runLife(options.workload, life, options, &ran);
  if (ran == 0) {
    fprintf(stderr, "powercut: no such state\n");
    return 2;
  }
  return failures == 0 ? 0 : 1;
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
