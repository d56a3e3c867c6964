#include "powercut/FaultLives.h"

#include "db/CApiDb.h"
#include "powercut/Checks.h"
#include "powercut/Script.h"

namespace powercut {
namespace {

constexpr uint16_t kFrameSetAudio = 0x80;
constexpr uint16_t kTrigger = 5;

// A session of rows of a second, and an event in each 20 pictures.
void recordPiece(Recorded* out, uint32_t first, uint32_t end) {
  const Server server;
  Recorder recorder(out);
  const size_t session = recorder.open(0, 1);
  for (uint32_t number = first; number < end; number += 20) {
    recorder.picture(session, number);
    const uint32_t event = recorder.beginEvent(session, kTrigger, number);
    recorder.pictures(session, number + 1, std::min(end, number + 20));
    recorder.endEvent(session, event, std::min(end, number + 20) - 1);
  }
  recorder.close(session);
}

// Values that leave no half of a record as it was.
void changeEvent(CApiDb* menu, uint32_t key, uint16_t value) {
  DB_EVENT event = {};
  event.eventID = key;
  event.extTrg = value;
  event.endMSec = value;
  require(menu->updateEvent(kEventRegExtTrg | kEventRegEndMSec, &event) == key, "no such event");
}

void changeStream(CApiDb* menu, uint32_t key, DB_STREAM_REG_BIT mask, uint16_t value) {
  DB_STREAM row = {};
  row.streamID = key;
  row.inTrg = value;
  row.frameSet = value;
  require(menu->updateStream(mask, &row) == key, "no such recording");
}

}  // namespace

void changedRows(Recorded* out) {
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  CApiDb menu;
  const size_t session = recorder.open(0, 1);
  const uint32_t length = 30 + variant();
  for (uint32_t number = 0; number < 3 * length; number += length) {
    recorder.picture(session, number);
    const uint32_t event = recorder.beginEvent(session, kTrigger, number);
    recorder.pictures(session, number + 1, number + length);
    recorder.endEvent(session, event, number + length - 1);
    for (uint16_t value = 100; value < 103; ++value) changeEvent(&menu, event, value);
    for (uint16_t value = 100; value < 103; ++value) {
      changeStream(&menu, recorder.at(session).streamID(), kStreamRegInTrg, value);
      changeStream(&menu, listStreams().front().streamID, kStreamRegInTrg, value);
    }
    if (number == length) menu.deleteEvent(event);
  }
  recorder.close(session);
}

void refusedDelete(Recorded* out) {
  shape() = {65536, 2048, 2, 4096};
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  size_t session = recorder.open(0, 1);
  refuseDelete(1 + static_cast<int>(variant() % 3));
  bool refused = false;
  for (uint32_t number = 0; number < 160 + variant() * 5; ++number) {
    if (recorder.tryPicture(session, number)) continue;
    refused = true;
    session = recorder.open(0, 1);
    while (!isKeyPicture(number + 1)) ++number;
  }
  require(refused, "nothing had to make room");
  recorder.close(session);
}

void lostRow(Recorded* out) {
  formatCard();
  boot();
  const Server server;
  begin(out);
  out->replayLosesRow = true;
  Recorder recorder(out);
  const size_t session = recorder.open(0, 1);
  recorder.pictures(session, 0, 55 + variant() * 5);
  recorder.close(session);
}

void leftOvers(Recorded* out) {
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  CApiDb others;
  auto record = [&](uint32_t first, uint32_t end) {
    const size_t session = recorder.open(0);
    recorder.picture(session, first);
    const uint32_t event = recorder.beginEvent(session, kTrigger, first);
    recorder.pictures(session, first + 1, end);
    recorder.endEvent(session, event, end - 1);
    recorder.close(session);
  };
  record(0, 20 + variant());
  // Its program died, and where its header was are entries of others.
  DB_STREAM row = listStreams().front();
  row.recSize = row.chunkSize = row.status = row.endDate = 0;
  row.startMSec = row.endMSec = 0;
  row.chunkOffset += 64;
  row.startDate = pictureTime(50).seconds;
  others.insertStream(&row);
  record(100, 130 + variant());
  record(200, 220);
  const size_t session = recorder.open(1);
  recorder.picture(session, 1000);
  changeStream(&others, recorder.at(session).streamID(), kStreamRegFrameSet, kFrameSetAudio);
  recorder.pictures(session, 1001, 1030 + variant());
  recorder.close(session);
}

void savedTwice(Recorded* out) {
  shape() = {65536, 2048, 2, 512};
  formatCard();
  boot();
  begin(out);
  for (uint32_t piece = 0; piece < 4; ++piece) {
    recordPiece(out, piece * 100, piece * 100 + 30 + variant() % 4 * 3);
    cleanStop();
    if (piece == 1) boot();
  }
}

void staleImage(Recorded* out) {
  shape() = {65536, 2048, 2, 512};
  formatCard();
  boot();
  recordPiece(out, 0, 60);
  cleanStop();
  boot();
  recordPiece(out, 100, 500);
  begin(out);
  knowRows(out);
  recordPiece(out, 500, 530 + variant() * 2);
  cleanStop();
  // The size that announces the image, and its flush.
  auto& ops = out->trace.ops;
  require(ops.size() > 2 && ops.back().flush && ops[ops.size() - 2].bytes.size() == 4,
          "a save ends in another way");
  ops.resize(ops.size() - 2);
}

}  // namespace powercut
