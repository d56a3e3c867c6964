#include "damage/SmallCard.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include "powercut/Checks.h"
#include "powercut/Keeper.h"
#include "powercut/LogLife.h"
#include "powercut/ReadFaults.h"
#include "powercut/Script.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/KeptRow.h"

using namespace powercut;

namespace damage {
namespace {

constexpr uint32_t kRecordings = 36;    // of which the last 20 or more are left
constexpr uint32_t kPictures = 10;      // of each
constexpr uint32_t kOpenPictures = 29;  // in full rings, a row of each ten: nine of the last one
constexpr size_t kLeast = 20;
constexpr auto kCopies = 3;
constexpr uint16_t kTrigger = 3;

void recordOne(Recorder* recorder, uint32_t index) {
  const uint32_t first = index * kPictures;
  const size_t session = recorder->open(static_cast<int8_t>(index % 2));
  recorder->picture(session, first);
  const uint32_t event = recorder->beginEvent(session, kTrigger, first);
  recorder->pictures(session, first + 1, first + kPictures);
  recorder->endEvent(session, event, first + kPictures - 1);
  recorder->close(session);
}

// Of recordings that the ring takes later, and of one that stays.
bool isKept(uint32_t index) { return index == 5 || index == 8 || index == kRecordings - 3; }

// Two recordings and two events under way, when power goes.
std::vector<uint8_t> recordUntilCut(Recorded* life, SmallCard* card) {
  const Server server;
  Recorder recorder(life);
  Keeper keeper(life);
  for (uint32_t index = 0; index < kRecordings; ++index) {
    recordOne(&recorder, index);
    if (isKept(index)) keeper.keep(index * kPictures, (index + 1) * kPictures - 1);
  }
  logLife(life, 0);
  const uint32_t first = kRecordings * kPictures;
  const size_t one = recorder.open(0);
  const size_t other = recorder.open(1);
  for (uint32_t number = first; number < first + kOpenPictures; ++number) {
    recorder.picture(one, number);
    recorder.picture(other, 1000 + number);
    if (number == first + 3) card->openEvents.insert(recorder.beginEvent(one, kTrigger, number));
    if (number == first + 5)
      card->openEvents.insert(recorder.beginEvent(other, kTrigger, 1000 + number));
  }
  for (const size_t session : {one, other})
    card->openStreams.insert(recorder.at(session).streamID());
  const Card& now = Card::get();
  return {now.bytes(), now.bytes() + now.size()};
}

Whole startWhole(const std::vector<uint8_t>& bytes) {
  Whole whole;
  whole.card = bytes;
  Card::get().load(bytes);
  boot();
  whole.streams = listStreams();
  whole.events = listEvents();
  whole.places = picturePlaces(whole.streams);
  whole.management = managementText();
  whole.logs = logBytes();
  whole.logEnds = logEnds();
  return whole;
}

}  // namespace

std::string managementText() {
  std::istringstream lines(describeCard());
  const std::string log = "management " + std::to_string(tarn::kFileSyslogManage);
  std::string out;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("image", 0) != 0 && line.rfind(log, 0) != 0) out += line + "\n";
  }
  return out;
}

std::vector<uint32_t> logEnds() {
  tarn::CardInfo info;
  std::string error;
  std::vector<uint32_t> ends;
  if (info.read(kCardPath, &error) != 0) return ends;
  for (const CHUNK_MANAGE& record : info.management(tarn::kFileSyslogManage).records)
    ends.push_back(record.streamFreeOffset);
  return ends;
}

std::vector<uint8_t> logBytes() {
  const tarn::CardFamily& family = cardLayout().family(tarn::kFileSyslog);
  const uint8_t* from = Card::get().bytes() + family.startByte();
  return {from, from + family.bytes()};
}

SmallCard makeSmallCard() {
  SmallCard card;
  shape() = {65536, 8192, 5, 2048};
  formatCard();
  boot();
  Recorded life;
  begin(&life);
  const std::vector<uint8_t> cut = recordUntilCut(&life, &card);
  Card::get().record(nullptr);
  for (const auto& session : life.sessions) {
    for (const Picture& picture : session)
      card.pictures[picture.streamID].push_back(picture.number);
  }
  card.cut = startWhole(cut);
  require(card.cut.streams.size() >= kLeast,
          "too few recordings are left: " + std::to_string(card.cut.streams.size()));
  for (const uint32_t key : card.openStreams) {
    bool found = false;
    for (const DB_STREAM& row : card.cut.streams) found = found || row.streamID == key;
    require(found, "an interrupted recording does not come back: " + std::to_string(key));
  }
  require(card.cut.streams.front().streamID > 1, "nothing had to make room");
  const auto copies = std::count_if(card.cut.streams.begin(), card.cut.streams.end(), tarn::isKept);
  require(copies == kCopies, "copies that are kept: " + std::to_string(copies));
  cleanStop();
  const Card& now = Card::get();
  card.stopped = startWhole({now.bytes(), now.bytes() + now.size()});
  require(card.stopped.management == card.cut.management, "a clean stop changes something");
  require(Card::get().takeStray().empty(), "written outside");
  return card;
}

}  // namespace damage
