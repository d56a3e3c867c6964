#pragma once

namespace tarn {

// Writes one line at LOG_ERR: "<function> line <line> in CFATAccess.cpp: " and the formatted text.
// All of raw volume access logs under that one source name. Keeps errno.
__attribute__((format(printf, 3, 4))) void logFat(const char* function, int line,
                                                  const char* format, ...);

}  // namespace tarn
