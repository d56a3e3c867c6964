#include "capi/Guard.h"
#include "capi/Handles.h"

struct tarn_recordings : tarn::RowsOf<tarn::RecordingFacts, tarn_recording> {};
struct tarn_events : tarn::RowsOf<tarn::EventFacts, tarn_event> {};

namespace tarn {
namespace {

tarn_recording rowOf(const RecordingFacts& facts) {
  tarn_recording row = {};
  row.id = facts.id;
  row.channel = facts.channel;
  row.kind = facts.kind;
  row.state = facts.state;
  row.start_us = facts.startUs;
  row.end_us = facts.endUs;
  row.zone_seconds = facts.zoneSeconds;
  row.trigger = facts.trigger;
  row.pictures = facts.pictures;
  row.copy_of = facts.copyOf;
  row.kept = facts.kept ? 1 : 0;
  row.bytes = facts.bytes;
  row.codec = facts.codec.c_str();
  return row;
}

tarn_event rowOf(const EventFacts& facts) {
  tarn_event row = {};
  row.id = facts.id;
  row.trigger = facts.trigger;
  row.pre_seconds = facts.preSeconds;
  row.zone_seconds = facts.zoneSeconds;
  row.start_us = facts.startUs;
  row.end_us = facts.endUs;
  row.kept = facts.kept ? 1 : 0;
  return row;
}

template <typename List>
List* listOf(tarn_card* card, MessageKind kind, const ListQuestion& question) {
  if (!isGiven(card, "card")) return nullptr;
  auto list = std::make_unique<List>();
  Message done;
  const auto add = [&list](const Message& answer) {
    auto& facts = list->facts.emplace_back();
    if (!answer.take(&facts)) return false;
    list->rows.push_back(rowOf(facts));
    return true;
  };
  const bool good = card->process->ask(Message(kind, question), add, &done, &lastError());
  return good ? list.release() : nullptr;
}

template <typename List>
size_t countOf(const List* list) {
  return list != nullptr ? list->rows.size() : 0;
}

}  // namespace
}  // namespace tarn

tarn_recordings* tarn_list_recordings(tarn_card* card, int64_t from_us, int64_t to_us,
                                      int channel) {
  return tarn::guarded<tarn_recordings*>(nullptr, [&] {
    return tarn::listOf<tarn_recordings>(card, tarn::MessageKind::kListRecordings,
                                         {from_us, to_us, channel});
  });
}

size_t tarn_recordings_count(const tarn_recordings* list) { return tarn::countOf(list); }

const tarn_recording* tarn_recordings_get(const tarn_recordings* list, size_t index) {
  return list != nullptr ? list->get(index) : nullptr;
}

void tarn_recordings_free(tarn_recordings* list) { delete list; }

tarn_events* tarn_list_events(tarn_card* card, int64_t from_us, int64_t to_us) {
  return tarn::guarded<tarn_events*>(nullptr, [&] {
    return tarn::listOf<tarn_events>(card, tarn::MessageKind::kListEvents,
                                     {from_us, to_us, TARN_NO_CHANNEL});
  });
}

size_t tarn_events_count(const tarn_events* list) { return tarn::countOf(list); }

const tarn_event* tarn_events_get(const tarn_events* list, size_t index) {
  return list != nullptr ? list->get(index) : nullptr;
}

void tarn_events_free(tarn_events* list) { delete list; }
