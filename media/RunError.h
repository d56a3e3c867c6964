#pragma once

#include <string>

#include "recorder/card/NoThrow.h"

namespace tarn {

// Why a run ended early, as a class behind an interface that throws nothing keeps it.
class RunError {
 public:
  // Always false. Takes no memory.
  bool failForMemory() {
    noMemory_ = true;
    return false;
  }
  bool lacksMemory() const { return noMemory_; }
  const char* error() const { return noMemory_ ? kErrNoMemory : error_.c_str(); }

 protected:
  // Always false.
  bool fail(const std::string& text) {
    error_ = text;
    return false;
  }

  std::string error_;

 private:
  bool noMemory_ = false;
};

}  // namespace tarn
