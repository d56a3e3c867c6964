#include "media/DeviceCounts.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <sstream>

namespace tarn {

// Reads, merged, sectors, milliseconds, and the same of writes; those under way, and milliseconds
// in which there were any.
bool DeviceCounts::read(const std::string& line) {
  std::istringstream fields(line);
  uint64_t field[10] = {};
  for (uint64_t& one : field) {
    if (!(fields >> one)) return false;
  }
  writes = field[4];
  sectorsWritten = field[6];
  writeMs = field[7];
  busyMs = field[9];
  return true;
}

std::string DeviceCounts::folderOf(const std::string& device) {
  struct stat status = {};
  if (stat(device.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return "";
  return "/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" +
         std::to_string(minor(status.st_rdev)) + "/";
}

}  // namespace tarn
