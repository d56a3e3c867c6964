#include "RecoveryLine.h"

#include "recorder/recovery/Recovery.h"

namespace tarn {
namespace {

ProgressLine* g_line = nullptr;

void showStep(const char* step) {
  if (g_line != nullptr) g_line->show(std::string("recovery: ") + step);
}

}  // namespace

RecoveryLine::RecoveryLine() {
  g_line = &line_;
  Recovery::tellSteps(showStep);
}

RecoveryLine::~RecoveryLine() {
  Recovery::tellSteps(nullptr);
  g_line = nullptr;
}

}  // namespace tarn
