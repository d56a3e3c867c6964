#include "Load.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Pair.h"

namespace bench {
namespace {

double fromTicks(unsigned long long ticks) {
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Seconds that all processors together were busy since the start of the machine. Waiting for a
// device is no work; time that another machine on this host took is.
double busySeconds() {
  FILE* file = fopen("/proc/stat", "r");
  if (file == nullptr) return 0;
  unsigned long long user = 0, nice = 0, system = 0, idle = 0, wait = 0, irq = 0, soft = 0,
                     steal = 0;
  const int got = fscanf(file, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &user, &nice, &system,
                         &idle, &wait, &irq, &soft, &steal);
  fclose(file);
  return got == 8 ? fromTicks(user + nice + system + irq + soft + steal) : 0;
}

// Seconds that a process and its ended children used, if it belongs to the session.
double secondsInSession(const char* process, int session) {
  const std::string path = std::string("/proc/") + process + "/stat";
  FILE* file = fopen(path.c_str(), "r");
  if (file == nullptr) return 0;
  char line[1024];
  const bool got = fgets(line, sizeof line, file) != nullptr;
  fclose(file);
  const char* rest = got ? strrchr(line, ')') : nullptr;  // a name may hold anything
  int sid = 0;
  unsigned long long times[4] = {};
  if (rest == nullptr ||
      sscanf(rest + 1, " %*c %*d %*d %d %*d %*d %*u %*u %*u %*u %*u %llu %llu %llu %llu", &sid,
             &times[0], &times[1], &times[2], &times[3]) != 5 ||
      sid != session) {
    return 0;
  }
  return fromTicks(times[0] + times[1] + times[2] + times[3]);
}

double ownSeconds() {
  const int session = getsid(0);
  double seconds = 0;
  DIR* processes = opendir("/proc");
  if (processes == nullptr) return 0;
  while (const dirent* entry = readdir(processes)) {
    if (atoi(entry->d_name) > 0) seconds += secondsInSession(entry->d_name, session);
  }
  closedir(processes);
  return seconds;
}

}  // namespace

double Load::ofOthersNow() {
  const Load load;
  usleep(500000);
  return load.others();
}

Load::Load() : begin_(now()), busy_(busySeconds()), own_(ownSeconds()) {}

double Load::others() const {
  const double seconds = now() - begin_;
  const double share = (busySeconds() - busy_ - (ownSeconds() - own_)) / seconds;
  return share > 0 ? share : 0;
}

}  // namespace bench
