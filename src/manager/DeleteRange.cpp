#include "manager/DeleteRange.h"

#include <syslog.h>

#include "base/Wrap.h"
#include "manager/ManagerMessages.h"

namespace tarn {
namespace {

// Number of the rule that the range breaks, 0 for none. Kept on purpose: equality passes although
// the texts say "<"; a range may well end where the free space begins. Test:
// EndlessDeleteTest.EveryRuleWarnsOfExactlyWhatBreaksItAndTheDeletionGoesOn
int brokenRule(const DeleteRange& range) {
  const auto [a, b, u, f] = range;
  if (u == 0) return a == 0 && b <= f ? 0 : 1;
  if (u <= f) return a <= u && u <= b && b <= f ? 0 : 2;
  if (f == 0) return a <= u && (u <= b || b == 0) ? 0 : 3;
  return f <= a && a <= u && (u <= b || b <= f) ? 0 : 4;
}

}  // namespace

uint32_t deleteRangeEnd(uint32_t start, uint32_t size, uint32_t areaSize) {
  uint32_t end = wrapAdd32(start, size);
  if (wrapSub32(areaSize, start) < size) end = wrapSub32(end, areaSize);
  return end == areaSize ? 0 : end;
}

void checkDeleteRange(const DeleteRange& range) {
  const unsigned long a = range.start;
  const unsigned long b = range.end;
  const unsigned long u = range.use;
  const unsigned long f = range.free;
  switch (brokenRule(range)) {
    case 1:
      syslog(LOG_WARNING, kMsgDeleteRange1, a, b, u, f);
      break;
    case 2:
      syslog(LOG_WARNING, kMsgDeleteRange2, a, b, u, f);
      break;
    case 3:
      syslog(LOG_WARNING, kMsgDeleteRange3, a, b, u, f);
      break;
    case 4:
      syslog(LOG_WARNING, kMsgDeleteRange4, a, b, u, f);
      break;
    default:
      break;
  }
}

}  // namespace tarn
