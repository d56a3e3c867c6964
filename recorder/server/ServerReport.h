#pragma once

namespace tarn {

// Tells the system log and, with the program's name in front, standard error.
void reportServer(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace tarn
