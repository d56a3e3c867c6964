#include "powercut/KeptLife.h"

#include "powercut/Keeper.h"
#include "powercut/Script.h"

namespace powercut {
namespace {

constexpr uint32_t kEventLength = 8;

}  // namespace

void keptEvents(Recorded* out) {
  shape() = {65536, 2048, 4, 2048};
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0, 2);
  recorder.pictures(session, 0, 10);
  Keeper keeper(out);
  const uint32_t pause = 40 + variant() % 9;
  for (uint32_t from = 10, count = 0; count < 3; ++count, from += kEventLength + pause) {
    const uint32_t event = recorder.beginEvent(session, 5, from);
    recorder.pictures(session, from, from + kEventLength);
    recorder.endEvent(session, event, from + kEventLength);
    recorder.pictures(session, from + kEventLength, from + kEventLength + pause);
    keeper.keep(from, from + kEventLength);
  }
  keeper.release(10 + 2 * (kEventLength + pause), 10 + 3 * kEventLength + 2 * pause);
  recorder.close(session);
}

}  // namespace powercut
