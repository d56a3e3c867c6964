// A whole start on a card that is damaged anywhere, or does not give or take all. What it leaves is
// what the next one finds, and what was refused has cost nothing once it is there again.
#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzCard.h"
#include "fuzz/Rows.h"
#include "recorder/recovery/Recovery.h"

using namespace tarn_fuzz;

namespace {

[[noreturn]] void fail(const char* what, const tarn::RecoveryReport& first,
                       const tarn::RecoveryReport& second) {
  fprintf(stderr, "%s: %s, %u and %u rows for %u and %u\n", what, second.error.c_str(),
          second.eventRows, second.streamRows, first.eventRows, first.streamRows);
  abort();
}

tarn::RecoveryReport start(tarn::FusePolicy policy) { return tarn::Recovery(policy).run(); }

void startTwice(tarn::FusePolicy policy) {
  const tarn::RecoveryReport first = start(policy);
  const std::string rows = databaseRows();
  const tarn::RecoveryReport second = start(policy);
  if (first.ok() && (!second.ok() || rows != databaseRows())) fail("a second start", first, second);
}

// Of a card that was only cut from power, with every chunk's pictures: what a start makes of it.
const std::string& undamagedRows() {
  static const std::string rows = [] {
    const tarn::RecoveryReport report = start(tarn::FusePolicy::kStop);
    if (!report.ok()) abort();
    std::string found = databaseRows();
    FuzzCard::get().restore();
    return found;
  }();
  return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tarn::FusePolicy;
  static constexpr FusePolicy kPolicies[] = {FusePolicy::kStop, FusePolicy::kGuard,
                                             FusePolicy::kAccept, FusePolicy::kStop};
  const std::string& undamaged = undamagedRows();
  const FusePolicy policy = kPolicies[size % 4];
  FuzzCard& card = FuzzCard::get();
  const bool damaged = card.damage(data, size, kEverything) > 0 || card.isCut();
  if (!card.hasRefusals()) {
    startTwice(policy);
  } else {
    const tarn::RecoveryReport first = start(policy);
    card.liftRefusals();
    const tarn::RecoveryReport second = start(policy);
    if (!damaged && (!second.ok() || databaseRows() != undamaged))
      fail("a start after refusals", first, second);
  }
  card.restore();
  return 0;
}
