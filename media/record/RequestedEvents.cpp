#include "media/record/RequestedEvents.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tarn {
namespace {

PictureTime timeAt(PictureTime start, int64_t atUs) {
  return PictureTime::fromMicros(start.totalMicros() + atUs);
}

}  // namespace

void RequestedEvents::add(const EventRequest& event, uint32_t seconds) {
  const auto at = static_cast<int64_t>(std::llround(event.atSeconds * 1e6));
  events_.push_back({at, at + int64_t{seconds} * 1000000, event.trigger});
}

bool RequestedEvents::begin(Event* event, PictureTime start) {
  event->eventID = session_->beginEvent(event->trigger, timeAt(start, event->startUs), 0);
  if (event->eventID == 0) return false;
  ++begun_;
  return true;
}

bool RequestedEvents::move(int64_t nowUs, PictureTime start) {
  for (Event& event : events_) {
    if (event.over) continue;
    if (event.eventID == 0 && nowUs >= event.startUs && !begin(&event, start)) return false;
    if (event.eventID == 0 || nowUs < event.endUs) continue;
    event.over = true;
    if (session_->endEvent(event.eventID, timeAt(start, event.endUs)) != 0) return false;
  }
  return true;
}

bool RequestedEvents::end(int64_t endUs, PictureTime start) {
  bool good = true;
  for (Event& event : events_) {
    if (event.eventID == 0 || event.over) continue;
    event.over = true;
    const PictureTime time = timeAt(start, std::min(event.endUs, endUs));
    good = session_->endEvent(event.eventID, time) == 0 && good;
  }
  return good;
}

std::vector<std::string> RequestedEvents::missed() const {
  std::vector<std::string> sentences;
  for (const Event& event : events_) {
    if (event.eventID != 0) continue;
    char text[80];
    snprintf(text, sizeof text, "the recording ended before the event %u@%g",
             unsigned{event.trigger}, static_cast<double>(event.startUs) / 1e6);
    sentences.emplace_back(text);
  }
  return sentences;
}

}  // namespace tarn
