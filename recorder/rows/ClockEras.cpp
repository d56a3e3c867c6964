#include "recorder/rows/ClockEras.h"

#include <fcntl.h>
#include <unistd.h>

#include "base/UniqueFd.h"

namespace tarn {
namespace {

constexpr char kPath[] = "/tmp/tarn-clock-eras";
// The machine's own numbers: the events' first key, then one of each family.
constexpr off_t kEventPlace = 0;

off_t placeOf(int family) { return static_cast<off_t>(sizeof(uint32_t)) * (family + 1); }

UniqueFd openEras() {
  return UniqueFd(open(kPath, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
}

uint32_t keyAt(int fd, off_t place) {
  uint32_t key = 0;
  return lseek(fd, place, SEEK_SET) == place &&
                 read(fd, &key, sizeof key) == static_cast<ssize_t>(sizeof key)
             ? key
             : 0;
}

bool setKey(int fd, off_t place, uint32_t key) {
  return lseek(fd, place, SEEK_SET) == place &&
         write(fd, &key, sizeof key) == static_cast<ssize_t>(sizeof key);
}

}  // namespace

ClockEras::Keys ClockEras::keys(int family) {
  const UniqueFd fd = openEras();
  if (!fd.valid()) return {};
  return {keyAt(fd.get(), placeOf(family)), keyAt(fd.get(), kEventPlace)};
}

bool ClockEras::enter(int family, const Keys& next) {
  const Keys now = keys(family);
  return begin(family, {now.stream != 0 ? now.stream : next.stream,
                        now.event != 0 ? now.event : next.event});
}

bool ClockEras::begin(int family, const Keys& next) {
  const UniqueFd fd = openEras();
  return fd.valid() && setKey(fd.get(), placeOf(family), next.stream) &&
         setKey(fd.get(), kEventPlace, next.event);
}

void ClockEras::forget() { unlink(kPath); }

}  // namespace tarn
