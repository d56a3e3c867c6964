#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Plain reads and writes of an open card or image file, asked once, interruptions apart: the one
// place of these loops. errno tells of failures. Not part of the interface. Any thread.

// Bytes read from `offset` on: fewer than `length` only at the end of the device; -1 on failure.
TARN_API ssize_t readUpTo(int fd, uint64_t offset, void* out, size_t length);
// False unless all of it came.
TARN_API bool readFully(int fd, uint64_t offset, void* out, size_t length);
// False unless all of it was taken; *failedByte is then where not, and errno ENOSPC when the device
// took nothing and gave no reason.
TARN_API bool writeFully(int fd, uint64_t offset, const void* data, size_t length,
                         uint64_t* failedByte);

// Size of an open block device or file in bytes; 0 when it is not known.
TARN_API uint64_t deviceSize(int fd);

}  // namespace tarn
