#include "Judge.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "Content.h"
#include "api/CApiTarnSyslogRead.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"

namespace faults {
namespace {

constexpr char kCard[] = "/dev/sdblk0p1";
constexpr uint32_t kOldest = 1;  // session whose rows make room
constexpr uint32_t kNewPictures = 8;
constexpr uint32_t kFirstNewSession = 100;

// The server as a thread.
class Server {
 public:
  Server() : started_(server_.start() == 0), thread_([this] { started_&& server_.run() == 0; }) {}
  ~Server() {
    server_.requestStop();
    thread_.join();
  }

 private:
  tarn::ManagementServer server_;
  bool started_;
  std::thread thread_;
};

std::string text(uint32_t number) { return std::to_string(number); }

}  // namespace

void Judge::wrong(const std::string& text) {
  failed_ = true;
  printf("\nFAIL %s\n", text.c_str());
}

void Judge::takePromise(const std::string& line) {
  uint32_t a = 0, b = 0, c = 0, d = 0;
  if (sscanf(line.c_str(), "safe %u %u %u", &a, &b, &c) == 3) {
    safe_[{a, b}] = c;
  } else if (sscanf(line.c_str(), "row %u %u %u", &a, &b, &c) == 3) {
    rowsBegun_[{a, b}].insert(c);
  } else if (sscanf(line.c_str(), "begun %u %u %u %u", &a, &b, &c, &d) == 4) {
    begun_[a] = {b, c, d};
  } else if (sscanf(line.c_str(), "event %u %u %u", &a, &b, &c) == 3) {
    events_[a] = {b, c};
  } else if (sscanf(line.c_str(), "updated %u %u", &a, &b) == 2) {
    triggers_[a] = b;
  } else if (sscanf(line.c_str(), "deleted %u", &a) == 1) {
    deleted_.insert(a);
  } else if (sscanf(line.c_str(), "event-deleted %u", &a) == 1) {
    eventsDeleted_.insert(a);
  } else if (sscanf(line.c_str(), "kept %u %u %u %u", &a, &b, &c, &d) == 4) {
    kept_[{a, b}] = {c, d};
  } else if (line == "releasing") {
    releasing_ = true;
  } else if (line == "released") {
    released_ = true;
  } else if (sscanf(line.c_str(), "clip %u", &a) == 1) {
    clipSafe_ = a;
  } else if (sscanf(line.c_str(), "line %u", &a) == 1) {
    logLines_.push_back(a);
  }
}

void Judge::readPromises() {
  std::ifstream file(options_.promises);
  for (std::string line; std::getline(file, line);) takePromise(line);
}

bool Judge::start(const char* when) {
  const tarn::RecoveryReport report = tarn::Recovery().run();
  const bool mayReport = options_.leftBehind && newSession_ == 0;
  for (const std::string& problem : report.problems)
    if (!mayReport) wrong(std::string(when) + ": recovery reports: " + problem);
  if (report.ok()) return true;
  wrong(std::string(when) + ": recovery fails: " + report.error);
  return false;
}

void Judge::checkCard(const char* when) {
  tarn::CardCheck check;
  std::string error;
  if (check.run(kCard, {}, &error) != 0) {
    wrong(std::string(when) + ": the check does not run: " + error);
  } else if (check.findings().total() != 0) {
    wrong(std::string(when) + ": the check finds: " + check.findings().list().front().text);
  }
}

void Judge::readRow(const DB_STREAM& row, const char* when) {
  const std::string name = std::string(when) + ": recording " + text(row.streamID);
  tarn::RecordingReader reader;
  if (reader.open(row) != 0) return wrong(name + " cannot be opened");
  if (row.recSize == 0) return wrong(name + " is open");
  if (tarn::isKept(row) && !tarn::isWholeCopy(row)) return wrong(name + " is a part of a copy");
  auto& there = tarn::isKept(row) ? copied_ : found_;
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < row.recSize; ++i) {
    tarn::PictureEntry entry;
    Stamp stamp;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes))
      return wrong(name + ": picture " + text(i) + " cannot be read");
    if (isClip(row.startDate)) {
      ++clipFound_;
      continue;
    }
    if (!readStamp(bytes, &stamp) || bytes != pictureBytes(stamp))
      return wrong(name + ": picture " + text(i) + " has other bytes");
    if (!(entry.presentation == pictureTime(stamp.session, stamp.index)))
      return wrong(name + ": picture " + text(i) + " has another time");
    if (!there[{stamp.session, stamp.channel}].insert(stamp.index).second)
      return wrong(name + ": picture " + text(i) + " is there twice");
  }
}

void Judge::readRows(const char* when) {
  found_.clear();
  copied_.clear();
  clipFound_ = 0;
  rows_.clear();
  CApiDb db;
  db.setSql("SELECT * FROM STREAM ORDER BY streamID");
  DB_STREAM row = {};
  for (long i = 0; i < static_cast<long>(db.getNTuple()) && db.getStreamValue(i, &row) == 0; ++i)
    rows_.push_back(row);
  for (const DB_STREAM& each : rows_) readRow(each, when);
  // The only picture of a recording that was interrupted may go.
  const uint32_t alone = clipSafe_ % kClipRow == 1 ? 1 : 0;
  if (clipFound_ + alone < clipSafe_)
    wrong(std::string(when) + ": of the clip " + text(clipSafe_) + " pictures were safe and " +
          text(clipFound_) + " are there");
}

void Judge::checkPictures(const char* when) {
  uint32_t lost[2] = {};
  for (const auto& [which, promised] : safe_) {
    const auto& [session, channel] = which;
    const std::set<uint32_t>& found = found_[which];
    uint32_t first = 0;
    if (session == kOldest) {
      // Only its oldest may make room.
      first = found.empty() ? promised : *found.begin();
      lost[channel] = first;
      if (first > options_.mayLose[channel])
        wrong(std::string(when) + ": channel " + text(channel) + " lost " + text(first) +
              " of its oldest pictures, not " + text(options_.mayLose[channel]));
    }
    for (uint32_t index = first; index < promised; ++index) {
      // A picture more would have confirmed it: the only one of a row that was interrupted.
      const bool alone = index + 1 == promised && rowsBegun_[which].count(index) != 0;
      if (found.count(index) != 0 || alone) continue;
      wrong(std::string(when) + ": picture " + text(index) + " of session " + text(session) +
            ", channel " + text(channel) + " was safe (" + text(promised) + ") and is lost");
      break;
    }
  }
  printf("\nlost %u %u\n", lost[0], lost[1]);
}

void Judge::checkCopies(const char* when) {
  if (released_ && !copied_.empty()) wrong(std::string(when) + ": what was released is still kept");
  if (releasing_) return;
  for (const auto& [which, pictures] : kept_) {
    const std::set<uint32_t>& copied = copied_[which];
    for (uint32_t index = pictures.first; index <= pictures.second; ++index) {
      if (copied.count(index) != 0) continue;
      wrong(std::string(when) + ": picture " + text(index) + " of channel " + text(which.second) +
            " was kept and is lost");
      break;
    }
  }
}

void Judge::checkEvents(const char* when) {
  CApiDb db;
  for (const auto& [key, begun] : begun_) {
    const bool ended = events_.count(key) != 0;
    // What no safe picture shows may go; the oldest session's go with their recordings.
    if (begun.session == kOldest || eventsDeleted_.count(key) != 0) continue;
    if (!ended && safe_[{begun.session, begun.channel}] <= begun.index + 1) continue;
    DB_EVENT row = {};
    const std::string name = std::string(when) + ": event " + text(key);
    if (db.selectEvent(key, &row) != 1) {
      wrong(name + " is lost");
      continue;
    }
    const tarn::PictureTime start = pictureTime(begun.session, begun.index);
    if (row.startDate != start.seconds || row.startMSec != start.milliseconds())
      wrong(name + " begins at another time");
    if (row.endDate < row.startDate) wrong(name + " has not ended");
    if (!ended) continue;
    const tarn::PictureTime end = pictureTime(begun.session, events_[key].second);
    if (row.endDate != end.seconds || row.endMSec != end.milliseconds())
      wrong(name + " ends at another time");
  }
}

void Judge::checkEdits(const char* when) {
  if (!options_.strict) return;
  for (const DB_STREAM& row : rows_) {
    const auto changed = triggers_.find(row.streamID);
    if (changed != triggers_.end() && row.inTrg != changed->second)
      wrong(std::string(when) + ": the change of recording " + text(row.streamID) + " is undone");
    if (deleted_.count(row.streamID) != 0)
      wrong(std::string(when) + ": recording " + text(row.streamID) + " was deleted and is there");
  }
  CApiDb db;
  for (const uint32_t key : eventsDeleted_) {
    DB_EVENT row = {};
    if (db.selectEvent(key, &row) == 1 && row.eventID == key)
      wrong(std::string(when) + ": event " + text(key) + " was deleted and is there");
  }
}

void Judge::checkLog() {
  CApiTarnSyslogRead reader;
  std::string all;
  std::string block(16384, '\0');
  for (short chunk = 0; chunk < 5; ++chunk) {
    CHUNK_USAGE usage = {};
    if (reader.getUsage(chunk, &usage) != 0) return wrong("the system log cannot be asked for");
    if (usage.freeAddr == 0) continue;
    if (reader.openChunk(0, static_cast<unsigned char>(chunk)) != 0)
      return wrong("the system log cannot be opened");
    long got = 0;
    while ((got = reader.read(block.data(), static_cast<long>(block.size()))) > 0)
      all.append(block, 0, static_cast<size_t>(got));
    if (got < 0) wrong("the system log cannot be read");
    reader.close();
  }
  for (const uint32_t number : logLines_) {
    char line[32];
    snprintf(line, sizeof line, "line %06u ", number);
    if (all.find(line) != std::string::npos) continue;
    return wrong("line " + text(number) + " of the system log was safe and is lost");
  }
}

void Judge::recordAnew() {
  const Server server;
  checkLog();
  newSession_ = kFirstNewSession;
  tarn::RecordingSession sessions[2];
  for (uint32_t channel = 0; channel < 2; ++channel) {
    tarn::RecordingOptions options;
    options.channel = static_cast<int8_t>(channel);
    tarn::RecordingSession& session = sessions[channel];
    if (session.open(options) != 0)
      return wrong(std::string("no new recording: ") + session.errorText());
    for (uint32_t index = 0; index < kNewPictures; ++index) {
      const std::vector<uint8_t> bytes = pictureBytes({newSession_, channel, index});
      if (session.writePicture(bytes.data(), bytes.size(), pictureTime(newSession_, index), 0,
                               isKeyPicture(index)) != 0)
        return wrong(std::string("new recording: ") + session.errorText());
    }
  }
  for (uint32_t channel = 0; channel < 2; ++channel) {
    if (sessions[channel].close() != 0)
      wrong(std::string("new recording: ") + sessions[channel].errorText());
    safe_[{newSession_, channel}] = kNewPictures;
  }
  CDbLog::getInstance()->finish();
}

int Judge::run() {
  readPromises();
  if (!start("after the fault")) return 1;
  checkCard("after the fault");
  readRows("after the fault");
  checkPictures("after the fault");
  checkCopies("after the fault");
  checkEvents("after the fault");
  checkEdits("after the fault");
  recordAnew();
  unlink("/tmp/DB.dat");
  if (!start("after a new recording")) return 1;
  checkCard("after a new recording");
  readRows("after a new recording");
  checkPictures("after a new recording");
  checkCopies("after a new recording");
  checkEvents("after a new recording");
  return failed_ ? 1 : 0;
}

}  // namespace faults

// The set-up program's work, without a process for it.
extern "C" int system(const char*) {
  std::string error;
  return tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error) ? 0 : 256;
}
