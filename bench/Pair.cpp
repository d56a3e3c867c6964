#include "Pair.h"

#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Load.h"

namespace bench {
namespace {

struct Options {
  bool anyway = false;  // measure whatever the load is
  bool wait = false;    // wait for others to become quiet
  std::string group;    // only this one
  bool list = false;    // print the groups' names
};
Options options;

constexpr int kWaitAttempts = 120;  // of half a second each

std::vector<Pair>& pairs() {
  static std::vector<Pair> all;
  return all;
}
std::vector<Figures>& figures() {
  static std::vector<Figures> all;
  return all;
}

double seconds(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double least(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}
double greatest(const std::vector<double>& values) {
  return *std::max_element(values.begin(), values.end());
}

std::string shown(double value) {
  char text[32];
  snprintf(text, sizeof text, "%.2f", value);
  return text;
}

// Empty when the machine is quiet enough, else why nothing can be said.
std::string tooBusy() {
  double load = Load::ofOthersNow();
  for (int i = 0; options.wait && load > Load::kLimit && i < kWaitAttempts; ++i) {
    load = Load::ofOthersNow();
  }
  return load > Load::kLimit ? "no verdict: load " + shown(load) : "";
}

// State of one pair from its first repetition to its last. The benchmark library calls once for
// each repetition, in order.
struct Running {
  Pair pair;
  std::unique_ptr<Rig> rig;
  std::unique_ptr<Load> load;
  std::string failure;
  int done = 0;
};

void start(Running* running) {
  if (!options.anyway) running->failure = tooBusy();
  if (!running->failure.empty()) return;
  try {
    running->rig = running->pair.make();
    running->load = std::make_unique<Load>();
  } catch (const std::exception& error) {
    running->failure = std::string("failed: ") + error.what();
  }
}

void finish(Running* running, benchmark::State& state) {
  state.counters["load"] = running->load->others();
  for (const auto& [name, value] : running->rig->figures()) state.counters["fig_" + name] = value;
  running->rig.reset();
}

void turn(Running* running, benchmark::State& state) {
  try {
    const double ours = running->rig->ours();
    const double bare = running->rig->bare();
    state.SetIterationTime(ours);
    state.counters["ours"] = ours;
    state.counters["bare"] = bare;
    state.counters["ratio"] = running->pair.goal == Goal::kSpeed ? bare / ours : ours / bare;
    if (++running->done == running->pair.repeats) finish(running, state);
  } catch (const std::exception& error) {
    running->failure = std::string("failed: ") + error.what();
    running->rig.reset();
  }
}

void runPair(Running* running, benchmark::State& state) {
  if (running->done == 0 && running->failure.empty()) start(running);
  state.counters["goal"] = static_cast<double>(running->pair.goal);
  state.counters["limit"] = running->pair.limit;
  for (auto _ : state) {
    if (running->failure.empty()) turn(running, state);
  }
  if (!running->failure.empty()) state.SkipWithError(running->failure.c_str());
}

void runFigures(const Figures& wanted, benchmark::State& state) {
  std::string failure = options.anyway ? "" : tooBusy();
  for (auto _ : state) {
    if (!failure.empty()) break;
    const Load load;
    try {
      const double begin = now();
      for (const auto& [name, value] : wanted.run()) state.counters["fig_" + name] = value;
      state.SetIterationTime(now() - begin);
    } catch (const std::exception& error) {
      failure = std::string("failed: ") + error.what();
    }
    state.counters["load"] = load.others();
  }
  if (!failure.empty()) state.SkipWithError(failure.c_str());
}

void registerPair(const Pair& pair) {
  auto running = std::make_shared<Running>();
  running->pair = pair;
  benchmark::RegisterBenchmark(
      pair.name.c_str(), [running](benchmark::State& state) { runPair(running.get(), state); })
      ->Iterations(1)
      ->Repetitions(pair.repeats)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->ComputeStatistics("min", least)
      ->ComputeStatistics("max", greatest);
}

void registerFigures(const Figures& wanted) {
  benchmark::RegisterBenchmark(wanted.name.c_str(),
                               [wanted](benchmark::State& state) { runFigures(wanted, state); })
      ->Iterations(1)
      ->Repetitions(wanted.repeats)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

// Takes this program's own options away from the benchmark library's.
void takeOptions(int* argc, char** argv) {
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    if (strcmp(argv[i], "--anyway") == 0) {
      options.anyway = true;
    } else if (strcmp(argv[i], "--wait") == 0) {
      options.wait = true;
    } else if (strcmp(argv[i], "--groups") == 0) {
      options.list = true;
    } else if (strncmp(argv[i], "--group=", 8) == 0) {
      options.group = argv[i] + 8;
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
}

bool isWanted(const std::string& group) { return options.group.empty() || options.group == group; }

int listGroups() {
  std::vector<std::string> names;
  for (const Pair& pair : pairs()) names.push_back(pair.group);
  for (const Figures& wanted : figures()) names.push_back(wanted.group);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  for (const std::string& name : names) puts(name.c_str());
  return 0;
}

}  // namespace

void give_up(const std::string& why) { throw std::runtime_error(why); }

double now() { return seconds(CLOCK_MONOTONIC); }
double cpuSeconds() { return seconds(CLOCK_PROCESS_CPUTIME_ID); }

double timed(const std::function<void()>& work) {
  const double begin = now();
  work();
  return now() - begin;
}

bool add(Pair pair) {
  pairs().push_back(std::move(pair));
  return true;
}

bool add(Figures wanted) {
  figures().push_back(std::move(wanted));
  return true;
}

std::unique_ptr<Rig> rig(std::function<double()> ours, std::function<double()> bare) {
  struct Two : Rig {
    std::function<double()> first, second;
    double ours() override { return first(); }
    double bare() override { return second(); }
  };
  auto two = std::make_unique<Two>();
  two->first = std::move(ours);
  two->second = std::move(bare);
  return two;
}

int main(int argc, char** argv) {
  setenv("TZ", "UTC0", 1);
  takeOptions(&argc, argv);
  if (options.list) return listGroups();
  for (const Pair& pair : pairs()) {
    if (isWanted(pair.group)) registerPair(pair);
  }
  for (const Figures& wanted : figures()) {
    if (isWanted(wanted.group)) registerFigures(wanted);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace bench
