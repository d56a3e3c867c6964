#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// What the kernel counts of a block device.
struct TARN_API DeviceCounts {
  uint64_t writes = 0;
  uint64_t sectorsWritten = 0;  // of 512 bytes, whatever the device has
  uint64_t writeMs = 0;
  uint64_t busyMs = 0;

  // From the line that the device's file "stat" has. False where it is none.
  bool read(const std::string& line);

  // The kernel's folder of a device's files, with a / behind it; "" of what is no block device.
  static std::string folderOf(const std::string& device);
};

}  // namespace tarn
