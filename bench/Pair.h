#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

// Pairs of measurements: the library's way of doing some work, and a bare loop of the fewest system
// calls that do the same. Both run in one process, in turn, several times over; what counts is the
// ratio of each turn, so that a machine that gets faster or slower meanwhile spoils neither.
namespace bench {

// Fails one pair, not the run.
[[noreturn]] void give_up(const std::string& why);

double now();         // seconds
double cpuSeconds();  // of this process, all threads

// Does both kinds of work once and returns seconds each.
class Rig {
 public:
  virtual ~Rig() = default;
  virtual double ours() = 0;
  virtual double bare() = 0;
  // Figures beside the two times, after all turns.
  virtual std::map<std::string, double> figures() { return {}; }
};

enum class Goal {
  kCost,   // ours / bare, at most
  kSpeed,  // bare / ours, at least: speed against the bare loop's
  kNone,   // shown only
};

struct Pair {
  std::string group;  // groups run in processes of their own
  std::string name;   // "row/variant"
  Goal goal = Goal::kNone;
  double limit = 0;
  int repeats = 7;
  std::function<std::unique_ptr<Rig>()> make;
};

// Registers a pair at program start: `const bool registered = bench::add({...});`
bool add(Pair pair);

// A measurement without a partner: figures only, one value for each repeat where `run` is called
// several times.
struct Figures {
  std::string group;
  std::string name;
  int repeats = 1;
  std::function<std::map<std::string, double>()> run;
};
bool add(Figures figures);

// Two functions as a rig.
std::unique_ptr<Rig> rig(std::function<double()> ours, std::function<double()> bare);
// The seconds that `work` takes.
double timed(const std::function<void()>& work);

int main(int argc, char** argv);

}  // namespace bench
