#pragma once

#include <sys/types.h>

#include <string>

#include "base/UniqueFd.h"

namespace tarn {

// Where a card is mounted: a directory of the user, which a private view cannot reach. So a process
// of its own stands outside and mounts there when it is asked to through a socket, and unmounts at
// the end, also when whoever serves it was killed.
class MountPoint {
 public:
  // A device of FUSE that is mounted at `directory`, to be read only. Not valid with the reason in
  // *error.
  static UniqueFd mount(const std::string& directory, std::string* error);
  // What is mounted there goes, as soon as nobody uses it.
  static void unmount(const std::string& directory);
  // False with a sentence in *error where nothing can be mounted there.
  static bool isUsable(const std::string& directory, std::string* error);

  // Starts the process, which writes a byte to `readyFd` (-1: none) when it has mounted. The socket
  // for whoever serves, which stays open in programs that are started; not valid with *error set.
  static UniqueFd startOutside(const std::string& directory, int readyFd, std::string* error);
  // Through that socket: as mount().
  static UniqueFd mountOutside(int socket, std::string* error);
  // The same: as unmount(), or, where it was unmounted already, the end of the process.
  static void endOutside(int socket, bool mounted);
};

// Goes on in a process of its own, without the terminal, and ends this one: with 0 once a byte was
// written to the descriptor that it returns, else as the new one ends. What is complained about
// until then is shown, and `result` is printed then. -1 with *error set where there is no new
// process.
int continueInBackground(const std::string& result, std::string* error);

}  // namespace tarn
