#pragma once

// Marks what the shared libraries offer to programs; everything else stays hidden.
#define TARN_API __attribute__((visibility("default")))
