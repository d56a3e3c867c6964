#include "powercut/Checks.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "fat/CFATAccess.h"
#include "powercut/LogLife.h"
#include "powercut/ReadFaults.h"
#include "powercut/RedatedLife.h"
#include "powercut/SoundLife.h"
#include "recorder/card/CardInfo.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/session/RecordingSession.h"

namespace powercut {
namespace {

constexpr uint32_t kNewPictures = 12;
constexpr uint32_t kNewNumber = 100000;
constexpr uint32_t kLeastPictures = 2;

template <typename Row>
struct Version {
  bool there;
  Row row;
};

// What a row may be after a cut: everything from the newest state that had been reported on.
template <typename Row>
struct Allowed {
  std::vector<Version<Row>> versions;
};

struct Model {
  std::map<uint32_t, Allowed<DB_STREAM>> streams;
  std::map<uint32_t, Allowed<DB_EVENT>> events;
  uint32_t lastStreamKey = 0;  // greatest that had been given out
  uint32_t lastEventKey = 0;
};

template <typename Row>
void apply(std::map<uint32_t, Allowed<Row>>* rows, const RowMark& mark, bool there, const Row& row,
           Cut cut, bool alsoLater, bool alsoBefore) {
  if (mark.begin > cut.at && !alsoLater) return;
  auto& versions = (*rows)[mark.key].versions;
  if (versions.empty()) versions.push_back({false, Row{}});
  if (mark.end <= cut.at && !alsoBefore) versions.clear();
  versions.push_back({there, row});
}

// Of the changes between a re-dating's first and last operation, of which others close what runs.
bool isRedating(const RowMark& mark) {
  if (mark.kind == RowMark::kEventPut) return true;
  return mark.kind == RowMark::kStreamPut && redatedBy(mark.stream) != 0;
}

Model modelAt(const Recorded& life, Cut cut) {
  Model model;
  for (const RowMark& mark : life.trace.rows) {
    const bool put = mark.kind == RowMark::kStreamPut || mark.kind == RowMark::kEventPut;
    // A re-dating that has begun is ended by the recovery.
    const bool redating = mark.begin >= life.redatingFrom && mark.end <= life.redatingTo &&
                          cut.at > life.redatingFrom && isRedating(mark);
    // One that is being taken back may go on or stand again; checkRedated() wants all alike.
    const bool back = mark.begin >= life.takingBackFrom && mark.end <= life.takingBackTo &&
                      cut.at > life.takingBackFrom && cut.at < life.takingBackTo;
    if (mark.kind == RowMark::kStreamPut || mark.kind == RowMark::kStreamDelete) {
      apply(&model.streams, mark, put, mark.stream, cut, redating || back, back);
      if (mark.end <= cut.at) model.lastStreamKey = std::max(model.lastStreamKey, mark.key);
    } else {
      apply(&model.events, mark, put, mark.event, cut, redating || back, back);
      if (mark.end <= cut.at) model.lastEventKey = std::max(model.lastEventKey, mark.key);
    }
  }
  return model;
}

std::string text(const DB_STREAM& row) {
  std::ostringstream out;
  out << "recording " << row.streamID << " (pictures " << row.recSize << ", chunk " << row.chunkID
      << " at " << row.chunkOffset << "+" << row.chunkSize << ", status " << row.status << ", "
      << row.startDate << "." << row.startMSec << "-" << row.endDate << "." << row.endMSec
      << ", journal " << row.backOffset << ")";
  return out.str();
}

std::string text(const DB_EVENT& row) {
  std::ostringstream out;
  out << "event " << row.eventID << " (" << row.extTrg << ", " << row.startDate << "."
      << row.startMSec << "-" << row.endDate << "." << row.endMSec << ", journal " << row.backOffset
      << ")";
  return out.str();
}

bool sameBytes(const DB_STREAM& a, const DB_STREAM& b) { return memcmp(&a, &b, sizeof a) == 0; }
bool sameBytes(const DB_EVENT& a, const DB_EVENT& b) { return memcmp(&a, &b, sizeof a) == 0; }

// A row that was open and that recovery has closed.
bool isRepairOf(const DB_STREAM& now, const DB_STREAM& was) {
  return was.recSize == 0 && now.recSize != 0 && now.inTrg == was.inTrg &&
         now.frameSet == was.frameSet && now.bitrateSet == was.bitrateSet &&
         now.chunkID == was.chunkID && now.chunkOffset == was.chunkOffset &&
         now.startDate == was.startDate && now.startMSec == was.startMSec &&
         now.backOffset == was.backOffset;
}
bool isRepairOf(const DB_EVENT& now, const DB_EVENT& was) {
  return was.endDate == 0 && now.endDate != 0 && now.extTrg == was.extTrg &&
         now.preSec == was.preSec && now.startDate == was.startDate &&
         now.startMSec == was.startMSec && now.backOffset == was.backOffset;
}

// Recovery may take an open row away.
bool isOpen(const DB_STREAM& row) { return row.recSize == 0; }
bool isOpen(const DB_EVENT& row) { return row.endDate == 0; }

uint32_t keyOf(const DB_STREAM& row) { return row.streamID; }
uint32_t keyOf(const DB_EVENT& row) { return row.eventID; }

template <typename Row>
std::string checkRows(const std::map<uint32_t, Allowed<Row>>& model, const std::vector<Row>& rows) {
  std::map<uint32_t, const Row*> found;
  for (const Row& row : rows) {
    if (!found.emplace(keyOf(row), &row).second) return "I2: listed twice: " + text(row);
    if (model.count(keyOf(row)) == 0) return "I2: nobody wrote " + text(row);
  }
  for (const auto& [key, allowed] : model) {
    const auto place = found.find(key);
    bool good = false;
    for (const Version<Row>& version : allowed.versions) {
      if (place == found.end()) {
        good = good || !version.there || isOpen(version.row);
      } else {
        good = good || (version.there && (sameBytes(*place->second, version.row) ||
                                          isRepairOf(*place->second, version.row)));
      }
    }
    if (good) continue;
    const Version<Row>& newest = allowed.versions.back();
    if (place == found.end()) return "I1: missing " + text(newest.row);
    return "I1: " + text(*place->second) + " should be " +
           (newest.there ? text(newest.row) : std::string("gone"));
  }
  return "";
}

// Seconds of the last picture of the recordings from the one that was running when an event began.
// Keys tell the order; the clock may have been set.
uint32_t ownEnd(const DB_EVENT& event, const std::vector<DB_STREAM>& rows) {
  uint32_t own = 0;
  uint32_t end = 0;
  for (const DB_STREAM& row : rows) {
    if (tarn::isSound(row) || tarn::isKept(row)) continue;
    if (row.startDate <= event.startDate) own = std::max(own, row.streamID);
  }
  for (const DB_STREAM& row : rows) {
    if (tarn::isSound(row) || tarn::isKept(row)) continue;
    if (row.streamID >= own) end = std::max(end, row.endDate);
  }
  return end;
}

// Whether a recording has a picture of an event that nobody ended, or of the seconds before it.
bool isShown(const DB_EVENT& event, const std::vector<DB_STREAM>& rows) {
  return std::any_of(rows.begin(), rows.end(), [&event](const DB_STREAM& row) {
    return !tarn::isSound(row) && row.startDate <= event.startDate + 1 &&
           row.endDate + event.preSec >= event.startDate;
  });
}

// An event that was under way ends with its recording and not at once, or had nothing to show.
std::string checkOpenEvents(const std::map<uint32_t, Allowed<DB_EVENT>>& model,
                            const std::vector<DB_STREAM>& rows,
                            const std::vector<DB_EVENT>& events) {
  std::set<uint32_t> listed;
  for (const DB_EVENT& event : events) {
    listed.insert(event.eventID);
    if (event.endDate == 0) return "I1: still running: " + text(event);
    const auto place = model.find(event.eventID);
    const auto known = [](const auto& version) { return version.there && !isOpen(version.row); };
    if (place == model.end() ||
        std::any_of(place->second.versions.begin(), place->second.versions.end(), known))
      continue;
    const uint32_t end = std::max(ownEnd(event, rows), event.startDate + 1);
    if (event.endDate != end) return "I1: ends at another time than its recording: " + text(event);
  }
  for (const auto& [key, allowed] : model) {
    bool mayBeGone = false;
    for (const auto& version : allowed.versions) {
      mayBeGone = mayBeGone || !version.there || !isShown(version.row, rows);
    }
    if (!mayBeGone && listed.count(key) == 0) {
      return "I1: has a recording and is gone: " + text(allowed.versions.back().row);
    }
  }
  return "";
}

// Pieces of a ring that are taken, and by whom.
struct Taken {
  uint32_t from;
  uint32_t to;
  uint32_t key;
};

void take(std::vector<Taken>* pieces, uint32_t from, uint32_t length, uint32_t ring, uint32_t key) {
  if (from + length <= ring) {
    pieces->push_back({from, from + length, key});
  } else {
    pieces->push_back({from, ring, key});
    pieces->push_back({0, from + length - ring, key});
  }
}

std::string checkOverlap(const char* area, std::map<uint32_t, std::vector<Taken>>* chunks) {
  for (auto& [chunk, pieces] : *chunks) {
    std::sort(pieces.begin(), pieces.end(),
              [](const Taken& a, const Taken& b) { return a.from < b.from; });
    for (size_t i = 1; i < pieces.size(); ++i) {
      if (pieces[i].from >= pieces[i - 1].to) continue;
      return "I2: recordings " + std::to_string(pieces[i - 1].key) + " and " +
             std::to_string(pieces[i].key) + " overlap in " + area + " chunk " +
             std::to_string(chunk);
    }
  }
  return "";
}

// Pictures of each row, from what the sessions were given.
std::map<uint32_t, std::vector<uint32_t>> picturesByRow(const Recorded& life) {
  std::map<uint32_t, std::vector<uint32_t>> result;
  for (const auto& session : life.sessions) {
    for (const Picture& picture : session) result[picture.streamID].push_back(picture.number);
  }
  return result;
}

struct Sizes {
  uint32_t stream;
  uint32_t picture;
};

Sizes ringSizes() {
  CFATAccess fat;
  Sizes sizes = {};
  for (const auto& [name, size] : {std::pair{"/dev/sdblk0p1:CKST0000", &sizes.stream},
                                   std::pair{"/dev/sdblk0p1:CKPC0000", &sizes.picture}}) {
    const int handle = fat.open(name, 0);
    *size = static_cast<uint32_t>(fat.getChunkSize(handle));
    fat.close(handle);
  }
  return sizes;
}

// A row of sound whose bytes are sound, too: one life only marks a row of pictures.
bool isOwnSound(const DB_STREAM& row) {
  return tarn::soundCodecOf(row) != tarn::SoundCodec::kUnknown;
}

std::string checkPictures(const std::vector<DB_STREAM>& rows,
                          const std::map<uint32_t, std::vector<uint32_t>>& expected) {
  const Sizes sizes = ringSizes();
  std::map<uint32_t, std::vector<Taken>> pictureRing;
  std::map<uint32_t, std::vector<Taken>> streamRing;
  std::set<uint32_t> places;
  std::vector<uint8_t> bytes;
  for (const DB_STREAM& row : rows) {
    if (!places.insert(row.backOffset).second) return "I2: journal place shared by " + text(row);
    tarn::RecordingReader reader;
    if (reader.open(row) != 0) return "I3: cannot be opened: " + text(row);
    const auto known = expected.find(row.streamID);
    const size_t given = known == expected.end() ? 0 : known->second.size();
    if (row.recSize == 0 || reader.pictureCount() != row.recSize || row.recSize > given) {
      return "I3: " + std::to_string(reader.pictureCount()) + " pictures, " +
             std::to_string(given) + " were given to " + text(row);
    }
    take(&pictureRing[row.chunkID], row.chunkOffset, row.chunkSize, sizes.picture, row.streamID);
    if (isOwnSound(row)) {
      uint32_t frames = 0;
      const std::string wrong = checkFrames(row, known->second, &frames);
      if (!wrong.empty()) return "I3: " + wrong + " in " + text(row);
    }
    for (uint32_t i = 0; i < row.recSize; ++i) {
      tarn::PictureEntry entry;
      if (isOwnSound(row)) {
        reader.picture(i, &entry);
        take(&streamRing[row.chunkID], entry.dataOffset, entry.size, sizes.stream, row.streamID);
        continue;
      }
      const uint32_t number = known->second[i];
      if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes) ||
          entry.presentation.totalMicros() !=
              pictureTime(number).totalMicros() + int64_t{redatedBy(row)} * 1000000 ||
          bytes != pictureBytes(number)) {
        return "I3: picture " + std::to_string(i) + " (" + std::to_string(number) +
               ") is not what was recorded in " + text(row);
      }
      take(&streamRing[row.chunkID], entry.dataOffset, entry.size, sizes.stream, row.streamID);
    }
  }
  const std::string overlap = checkOverlap("picture", &pictureRing);
  return overlap.empty() ? checkOverlap("stream", &streamRing) : overlap;
}

// A copy is there with everything that it is to have, or it is not there.
std::string checkCopies(const std::vector<DB_STREAM>& rows,
                        const std::map<uint32_t, std::vector<uint32_t>>& expected) {
  for (const DB_STREAM& row : rows) {
    if (!tarn::isKept(row)) continue;
    const auto known = expected.find(row.streamID);
    const size_t whole = known == expected.end() ? 0 : known->second.size();
    if (!tarn::isWholeCopy(row) || (whole != 0 && row.recSize != whole))
      return "I8: half a copy is listed: " + text(row);
  }
  return "";
}

// Everything that was safe, and what a loss may cost at most.
std::string checkLoss(const Recorded& life, Cut cut, const Model& model,
                      const std::vector<DB_STREAM>& rows,
                      const std::map<uint32_t, std::vector<uint32_t>>& expected) {
  std::map<uint32_t, uint32_t> kept;
  for (const DB_STREAM& row : rows) {
    kept[row.streamID] = row.recSize;
    if (isOwnSound(row)) checkFrames(row, expected.at(row.streamID), &kept[row.streamID]);
  }
  std::vector<uint32_t> safe(life.sessions.size());
  for (const SafeMark& mark : life.safe) {
    if (mark.when > cut.at) break;
    const auto sound = life.mostUnsafe.find(static_cast<size_t>(mark.session));
    const uint32_t unsafe = sound == life.mostUnsafe.end() ? life.flushPictures : sound->second;
    const uint32_t least = mark.accepted > unsafe ? mark.accepted - unsafe : 0;
    uint32_t& count = safe[static_cast<size_t>(mark.session)];
    count = std::max({count, mark.confirmed, least});
  }
  for (size_t session = 0; session < safe.size(); ++session) {
    std::map<uint32_t, uint32_t> seen;
    std::map<uint32_t, uint32_t> inRow;
    for (uint32_t i = 0; i < safe[session]; ++i) ++inRow[life.sessions[session][i].streamID];
    for (uint32_t i = 0; i < safe[session]; ++i) {
      const Picture& picture = life.sessions[session][i];
      const uint32_t index = seen[picture.streamID]++;
      const auto row = model.streams.find(picture.streamID);
      bool mayBeGone = row == model.streams.end();
      if (!mayBeGone) {
        for (const auto& version : row->second.versions) mayBeGone = mayBeGone || !version.there;
      }
      // The repair takes an interrupted recording for one when it has two pictures; of sound one
      // block is enough.
      if (inRow[picture.streamID] < kLeastPictures && life.mostUnsafe.count(session) == 0)
        mayBeGone = true;
      if (mayBeGone || index < kept[picture.streamID]) continue;
      return "I4: picture " + std::to_string(picture.number) + " of recording " +
             std::to_string(picture.streamID) + " was safe and is lost (" +
             std::to_string(kept[picture.streamID]) + " came back)";
    }
  }
  return "";
}

// A chunk with recordings belongs to their channel, or another one would go on in it.
std::string checkChannels(const Recorded& life, const std::vector<DB_STREAM>& rows) {
  tarn::CardInfo info;
  std::string error;
  if (info.read(kCardPath, &error) != 0) return error;
  const auto& records = info.management(tarn::kFileStreamManage).records;
  std::map<uint32_t, int8_t> channels;
  for (size_t session = 0; session < life.sessions.size(); ++session) {
    for (const Picture& picture : life.sessions[session]) {
      channels[picture.streamID] = life.channels[session];
    }
  }
  for (const DB_STREAM& row : rows) {
    const auto known = channels.find(row.streamID);
    if (known == channels.end() || records.at(row.chunkID).chType == known->second) continue;
    return "I6: chunk " + std::to_string(row.chunkID) + " belongs to channel " +
           std::to_string(records.at(row.chunkID).chType) + ", " + text(row) + " to channel " +
           std::to_string(known->second);
  }
  return "";
}

std::string firstSectors(const std::vector<uint64_t>& sectors) {
  std::string out;
  for (size_t i = 0; i < sectors.size() && i < 5; ++i) {
    out += " " + std::to_string(sectors[i] * kSector);
  }
  return out;
}

std::string checkCardTool() {
  tarn::CardCheck check;
  std::string error;
  if (check.run(kCardPath, {}, &error) != 0) return "I6: the check does not run: " + error;
  if (check.findings().total() != 0)
    return "I6: the check finds " + check.findings().list().front().text;
  return "";
}

// A recorder starts on the card and records; what was there stays, but for the oldest.
std::string checkNewRecording(const std::vector<DB_STREAM>& before,
                              std::map<uint32_t, std::vector<uint32_t>> expected,
                              uint32_t* newKey) {
  uint32_t key = 0;
  {
    const Server server;
    tarn::RecordingSession session;
    tarn::RecordingOptions options;
    if (session.open(options) != 0)
      return std::string("I6: no new recording: ") + session.errorText();
    for (uint32_t i = 0; i < kNewPictures; ++i) {
      const std::vector<uint8_t> bytes = pictureBytes(kNewNumber + i);
      if (session.writePicture(bytes.data(), bytes.size(), pictureTime(kNewNumber + i), 0,
                               isKeyPicture(kNewNumber + i)) != 0) {
        return std::string("I6: new recording: ") + session.errorText();
      }
      // A key that the life gave out later is this recording's now.
      if (key != session.streamID()) expected[session.streamID()].clear();
      key = session.streamID();
      expected[key].push_back(kNewNumber + i);
    }
    if (session.close() != 0) return std::string("I6: new recording: ") + session.errorText();
    CDbLog::getInstance()->finish();
  }
  *newKey = key;
  const std::vector<DB_STREAM> rows = listStreams();
  std::map<uint32_t, DB_STREAM> now;
  for (const DB_STREAM& row : rows) now[row.streamID] = row;
  if (now.count(key) == 0) return "I6: the new recording is not listed";
  bool kept = false;
  for (const DB_STREAM& row : before) {
    const auto place = now.find(row.streamID);
    if (tarn::isKept(row)) {
      if (place == now.end()) return "I8: a copy is lost by a new recording: " + text(row);
      if (!sameBytes(place->second, row)) return "I8: changed by a new recording: " + text(row);
      continue;
    }
    if (place == now.end() && kept) return "I6: lost by a new recording: " + text(row);
    if (place == now.end()) continue;  // the oldest make room
    kept = true;
    if (!sameBytes(place->second, row)) return "I6: changed by a new recording: " + text(row);
  }
  const std::string pictures = checkPictures(rows, expected);
  if (!pictures.empty()) return "I6: after a new recording: " + pictures;
  // The card knows it all, too.
  const tarn::RecoveryReport again = bootCard();
  if (!again.ok()) return "I6: after a new recording: " + again.error;
  const std::vector<DB_STREAM> restored = listStreams();
  const bool same = std::equal(rows.begin(), rows.end(), restored.begin(), restored.end(),
                               [](const auto& a, const auto& b) { return sameBytes(a, b); });
  return same ? "" : "I6: after a new recording and a start the rows are others";
}

bool cardOpens() {
  CFATAccess fat;
  const int handle = fat.open("/dev/sdblk0p1:CKST0000", 0);
  if (handle < 0) return false;
  fat.close(handle);
  return true;
}

}  // namespace

tarn::RecoveryReport bootCard() {
  unlink("/tmp/DB.dat");
  unlink("/tmp/sd_err_mem_write");
  return tarn::Recovery().run();
}

std::vector<DB_STREAM> listStreams() {
  std::vector<DB_STREAM> rows;
  CApiDb db;
  db.setSql("SELECT * FROM STREAM ORDER BY streamID");
  DB_STREAM row = {};
  for (long i = 0; i < static_cast<long>(db.getNTuple()) && db.getStreamValue(i, &row) == 0; ++i) {
    rows.push_back(row);
  }
  return rows;
}

std::vector<DB_EVENT> listEvents() {
  std::vector<DB_EVENT> rows;
  CApiDb db;
  db.setSql("SELECT * FROM EVENT ORDER BY eventID");
  DB_EVENT row = {};
  for (long i = 0; i < static_cast<long>(db.getNTuple()) && db.getEventValue(i, &row) == 0; ++i) {
    rows.push_back(row);
  }
  return rows;
}

std::string describeCard() {
  std::ostringstream out;
  for (const DB_STREAM& row : listStreams()) out << text(row) << "\n";
  for (const DB_EVENT& row : listEvents()) out << text(row) << "\n";
  CApiDb db;
  db.setSql("SELECT seq FROM sqlite_sequence ORDER BY name");
  for (uint32_t i = 0; i < db.getNTuple(); ++i) {
    out << "keys up to " << db.getValue(static_cast<long>(i), 0) << "\n";
  }
  tarn::CardInfo info;
  std::string error;
  if (info.read(kCardPath, &error) != 0) return error;
  for (int type : {tarn::kFileStreamManage, tarn::kFileSyslogManage, tarn::kFileJournalManage}) {
    const tarn::CardManagement& management = info.management(type);
    out << "management " << type << " copies " << static_cast<int>(management.copies) << ":";
    for (const CHUNK_MANAGE& record : management.records) {
      out << " " << int{record.chType} << "," << record.streamUseOffset << ","
          << record.streamFreeOffset << "," << record.pictureUseOffset << ","
          << record.pictureFreeOffset;
    }
    out << "\n";
  }
  out << "image " << info.dbImageBytes() << "\n";
  return out.str();
}

Checker::Checker(const Recorded& life) : life_(life), expected_(picturesByRow(life)) {}

// An interrupted format: the old card, the new one, or none.
std::string Checker::checkFormat(Cut cut) {
  if (!cardOpens()) {
    const tarn::RecoveryReport report = bootCard();
    return report.ok() ? "recovery says that a card that does not open is fine" : "";
  }
  const tarn::RecoveryReport report = bootCard();
  if (!report.ok()) return "a card that opens is not recovered: " + report.error;
  const std::vector<DB_STREAM> rows = listStreams();
  const bool untouched = cut.flush == 0;
  if (!rows.empty() && !untouched) return "an old recording is listed: " + text(rows.front());
  if (rows.empty() && cut.at < life_.trace.ops.size() && untouched) {
    return "the old recordings are gone before the format began";
  }
  uint32_t key = 0;
  std::string failure = checkPictures(rows, expected_);
  if (failure.empty()) failure = checkCardTool();
  if (failure.empty()) failure = checkNewRecording(rows, expected_, &key);
  return failure;
}

// What follows from the recovered card alone.
std::string checkFitness(const std::vector<DB_STREAM>& rows,
                         const std::map<uint32_t, std::vector<uint32_t>>& expected,
                         uint32_t* newKey) {
  std::string failure = checkPictures(rows, expected);
  if (!failure.empty()) return failure;
  Card& card = Card::get();
  const std::string before = describeCard();
  const size_t moment = card.moment();
  const tarn::RecoveryReport again = bootCard();
  if (!again.ok()) return "I5: recovery fails the second time: " + again.error;
  const std::vector<uint64_t> changed = card.changedSince(moment);
  if (!changed.empty()) return "I5: a second recovery changes bytes at" + firstSectors(changed);
  if (describeCard() != before) return "I5: a second recovery changes rows";
  failure = checkCardTool();
  if (failure.empty()) failure = checkNewRecording(rows, expected, newKey);
  return failure;
}

// The header of a recording that is deleted may have been rewritten before, or not. What listed
// ones have is looked at elsewhere.
bool sameButForIndexes(const std::vector<uint8_t>& wanted) {
  const tarn::CardFamily& index = cardLayout().family(tarn::kFilePicture);
  const uint8_t* bytes = Card::get().bytes();
  const uint64_t behind = index.startByte() + index.bytes();
  return memcmp(bytes, wanted.data(), index.startByte()) == 0 &&
         memcmp(bytes + behind, wanted.data() + behind, wanted.size() - behind) == 0;
}

// Of two descriptions.
std::string linesOnlyIn(const std::string& one, const std::string& other) {
  std::istringstream lines(one);
  std::string out;
  for (std::string line; std::getline(lines, line);) {
    if (("\n" + other).find("\n" + line + "\n") == std::string::npos) out += "{" + line + "}";
  }
  return out.empty() ? "nothing" : out;
}

std::string withoutJournalPlace(std::string description) {
  const std::string line = "management " + std::to_string(tarn::kFileJournalManage) + " ";
  const size_t from = description.find(line);
  if (from != std::string::npos) description.erase(from, description.find('\n', from) - from);
  return description;
}

std::string firstDifference(const std::vector<uint8_t>& wanted) {
  const auto found = std::mismatch(wanted.begin(), wanted.end(), Card::get().bytes());
  return placeOf(static_cast<uint64_t>(found.first - wanted.begin()));
}

// A start whose replay lost a row must stop there: its recording's place would count as free.
std::string checkLossyStart() {
  loseReplayedRow(true);
  const tarn::RecoveryReport report = bootCard();
  const bool lost = loseReplayedRow(false);
  return lost && report.ok() ? "recovery goes on with a database that lacks a row" : "";
}

// A row is closed when its header has everything but the mark for it, and marked before the next
// one begins: no cut leaves a closed recording that its header does not fit.
std::string checkHeaders(const tarn::RecoveryReport& report) {
  for (const tarn::RecoveryChange& change : report.changes) {
    if (change.kind == tarn::RecoveryChange::Kind::kHeaderRewritten) return "I1: " + change.text;
  }
  return "";
}

std::string Checker::checkRecovered(Cut cut, uint64_t flushed) {
  const std::string lossy = life_.replayLosesRow ? checkLossyStart() : "";
  if (!lossy.empty()) return lossy;
  return checkResult(bootCard(), cut, flushed, life_.isRecovery ? Same::kAll : Same::kNothing);
}

// A read that fails once changes nothing at all. One that fails for longer may stop the recovery,
// or leave something for the next one, which then brings all of it back.
std::string Checker::checkUndone(const ReadFault& fault) {
  Card& card = Card::get();
  const std::vector<uint8_t> zeros(kSector);
  if (fault.kind == ReadFault::kZeros) card.put(fault.sector * kSector, zeros.data(), kSector);
  card.refuse(&fault);
  const tarn::RecoveryReport report = bootCard();
  if (!report.ok()) ++stops_;
  std::string failure = checkUnderFault(life_, fault, report);
  card.refuse(nullptr);
  if (!failure.empty()) return failure;
  if (fault.isPassing()) return checkResult(report, life_.cut, 0, Same::kAll);
  // The other copy says the same; what was dead in both need not become alike again.
  const Same same = hasNewestOfARow(life_, fault)     ? Same::kNothing
                    : fault.kind == ReadFault::kZeros ? Same::kRows
                                                      : Same::kButJournalPlace;
  failure = checkResult(bootCard(), life_.cut, 0, same);
  return failure.empty() ? "" : "after the fault: " + failure;
}

std::string Checker::checkRefused(const ReadFault& fault) {
  const std::string failure = checkUndone(fault);
  const std::string stray = Card::get().takeStray();
  return failure.empty() && !stray.empty() ? "I7: written outside the chunks: " + stray : failure;
}

std::string Checker::checkResult(const tarn::RecoveryReport& report, Cut cut, uint64_t flushed,
                                 Same same) {
  if (!report.ok()) return "recovery fails: " + report.error;
  if (Card::get().unflushed()) return "I5: recovery returns with writes that are not flushed";
  const std::string state = describeCard();
  const uint64_t sum = flushed ^ Card::get().changesHash();
  // Rows that are deleted in another order, in two starts, leave the journals' free places
  // elsewhere.
  const bool moved = same != Same::kAll && state != life_.finalState &&
                     withoutJournalPlace(state) == withoutJournalPlace(life_.finalState);
  const bool exact = same != Same::kNothing && !moved;
  if (exact && state != life_.finalState) {
    return "I5: after a recovery that was disturbed: " + linesOnlyIn(state, life_.finalState) +
           " instead of " + linesOnlyIn(life_.finalState, state);
  }
  if (exact && same != Same::kRows && sum != life_.finalSum &&
      !sameButForIndexes(life_.finalCard)) {
    return "I5: after a recovery that was disturbed the card has other bytes at " +
           firstDifference(life_.finalCard);
  }
  const Model model = modelAt(life_, cut);
  const std::vector<DB_STREAM> rows = listStreams();
  const std::vector<DB_EVENT> events = listEvents();
  std::string failure = checkRows(model.streams, rows);
  if (failure.empty()) failure = checkRows(model.events, events);
  if (failure.empty() && !life_.isRecovery) failure = checkHeaders(report);
  if (failure.empty()) failure = checkOpenEvents(model.events, rows, events);
  if (failure.empty()) failure = checkCopies(rows, expected_);
  if (failure.empty()) failure = checkRedated(life_, rows, events);
  if (failure.empty()) failure = checkChannels(life_, rows);
  if (failure.empty()) failure = checkLoss(life_, cut, model, rows, expected_);
  if (failure.empty()) failure = checkLog(life_, cut.at);
  if (!failure.empty()) return failure;

  const auto fit = fit_.try_emplace({sum, state}, 0).first;
  if (fit->second == 0) failure = checkFitness(rows, expected_, &fit->second);
  if (failure.empty() && fit->second <= model.lastStreamKey)
    failure = "I2: key " + std::to_string(fit->second) + " came back";
  return failure;
}

std::string Checker::check(Cut cut, uint64_t flushed) {
  std::string failure = life_.isFormat
                            ? checkFormat(cut)
                            : checkRecovered(life_.isRecovery ? life_.cut : cut, flushed);
  const std::string stray = Card::get().takeStray();
  if (failure.empty() && !stray.empty()) failure = "I7: written outside the chunks: " + stray;
  return failure;
}

std::string Checker::checkFileSystem() {
  ++fileSystemChecks_;
  const std::string out = "/tmp/fsck.out";
  const std::string command =
      std::string("PATH=/usr/sbin:/sbin:$PATH fsck.fat -n ") + kCardPath + " >" + out + " 2>&1";
  if (system(command.c_str()) == 0) return "";
  std::ifstream file(out);
  return "I7: fsck.fat finds: " + std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace powercut
