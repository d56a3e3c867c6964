#include "recorder/recovery/RecoveryFuse.h"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <set>

#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/NativeRows.h"
#include "recorder/recovery/RecoveryMessages.h"
#include "recorder/rows/JournalCopies.h"

namespace tarn {
namespace {

constexpr char kSqlChunksWithRows[] = "SELECT DISTINCT chunkID FROM STREAM";
constexpr char kSqlNewestOfChunks[] =
    "SELECT * FROM STREAM WHERE streamID IN ( SELECT MAX( streamID ) FROM STREAM GROUP BY chunkID "
    ")";
// Read of a picture chunk where a recording would begin: 127 entries.
constexpr uint32_t kProofBytes = 4096;

bool entryAt(const uint8_t* bytes, uint32_t streamSize, PictureEntry* entry) {
  return decodePictureEntry(bytes, entry) && entry->key != 0 && entry->size != 0 &&
         entry->dataOffset < streamSize && entry->size < streamSize;
}

// What the picture entries at a place tell of a recording. Bytes that the device refuses tell
// nothing: whoever asks must take them for a recording's, because they may be, and come back.
struct Proof {
  uint32_t key = 0;  // of the recording; 0: there is none, or it is refused
  bool refused = false;
  bool possible() const { return key != 0 || refused; }
};

// Two entries that follow each other, as a checksum alone fits noise at times. An entry is written
// behind its row's record, so there was one.
uint32_t keyIn(const std::vector<uint8_t>& bytes, uint32_t streamSize) {
  for (size_t at = 0; at + 2 * kRecordSize <= bytes.size(); at += kRecordSize) {
    PictureEntry first;
    PictureEntry second;
    if (entryAt(bytes.data() + at, streamSize, &first) &&
        entryAt(bytes.data() + at + kRecordSize, streamSize, &second) && first.key == second.key &&
        second.number == first.number + 1) {
      return first.key;
    }
  }
  return 0;
}

// Behind `offset` of a picture chunk.
Proof proofAt(ChunkSource* pictures, uint32_t offset) {
  Proof proof;
  if (!pictures->isOpen()) {
    proof.refused = !pictures->isPlaceless();
    return proof;
  }
  if (offset >= pictures->size()) return proof;
  std::vector<uint8_t> bytes(std::min(kProofBytes, pictures->size()));
  const Delivery got = pictures->read(offset, bytes.data(), static_cast<uint32_t>(bytes.size()));
  proof.refused = got == Delivery::kRefused;
  if (got == Delivery::kGood) proof.key = keyIn(bytes, pictures->streamSize());
  return proof;
}

// Asks many chunks, so that a dead region of the card holds a start up once and not for each.
class ProofReader {
 public:
  Proof at(uint32_t chunk, uint32_t offset) {
    ChunkSource pictures(kFilePicture, chunk, O_RDONLY);
    pictures.sharePatience(&patienceMs_);
    return proofAt(&pictures, offset);
  }
  // Where the oldest data is by the management data, else at the chunk's start.
  Proof oldest(uint32_t chunk, uint32_t useOffset) {
    const Proof proof = at(chunk, useOffset);
    if (proof.key != 0 || useOffset == 0) return proof;
    const Proof start = at(chunk, 0);
    return start.key != 0 || !proof.refused ? start : proof;
  }

 private:
  uint32_t patienceMs_ = kReadPatienceMs;
};

bool chunksWithRows(std::set<uint32_t>* chunks) {
  CApiDb db;
  if (db.setSql(kSqlChunksWithRows) != 0) return false;
  const auto count = static_cast<int>(db.getNTuple());
  for (int i = 0; i < count; ++i) chunks->insert(static_cast<uint32_t>(db.getValue(i, 0)));
  return true;
}

// Keys of all records of the stream journal, the deleted ones too.
bool keysOfJournal(std::set<uint32_t>* keys, std::string* error) {
  const JournalTraits& traits = journalTraits(JournalKind::kStream);
  const auto number = static_cast<uint32_t>(traits.chunk);
  ChunkSource original(kFileJournal, number, O_RDONLY);
  ChunkSource mirror(kFileJournal, number + kJournalMirrorStep, O_RDONLY);
  if (!original.isOpen() || !mirror.isOpen()) {
    *error = kErrFuseJournal;
    return false;
  }
  JournalCopies copies(JournalKind::kStream, &original, &mirror);
  for (uint32_t at = 0; at < copies.size(); at += traits.recordSize) {
    const JournalCopy copy = copies.at(at);
    if (copy == JournalCopy::kErased || copies.endsBesideRefused()) break;
    if (copy == JournalCopy::kRefused) {
      *error = "the " + copies.refusedText() + " cannot be read";
      return false;
    }
    if (copy == JournalCopy::kNeither) continue;
    for (const uint8_t* record : {copies.original(), copies.mirror()}) {
      if (record != nullptr && journalRecordInPlace(traits, record, at)) {
        keys->insert(journalKey(record));
      }
    }
  }
  return true;
}

std::string plural(size_t count, const char* word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

// "chunks 0, 1 and 8 more"
std::string chunkText(const std::vector<uint32_t>& chunks) {
  constexpr size_t kNamed = 8;
  std::string text = chunks.size() == 1 ? "chunk " : "chunks ";
  for (size_t i = 0; i < chunks.size() && i < kNamed; ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(chunks[i]);
  }
  if (chunks.size() > kNamed) text += " and " + std::to_string(chunks.size() - kNamed) + " more";
  return text;
}

struct LostChunk {
  uint32_t chunk;
  Proof proof;
};

bool anyRefused(const std::vector<LostChunk>& lost) {
  return std::any_of(lost.begin(), lost.end(),
                     [](const LostChunk& one) { return one.proof.refused; });
}

std::vector<uint32_t> numbersOf(const std::vector<LostChunk>& lost) {
  std::vector<uint32_t> chunks;
  chunks.reserve(lost.size());
  for (const LostChunk& one : lost) chunks.push_back(one.chunk);
  return chunks;
}

// In use, without a row, but with entries, or with what the device does not give.
std::vector<LostChunk> candidates(const std::vector<CHUNK_MANAGE>& known,
                                  const std::set<uint32_t>& withRows) {
  std::vector<LostChunk> found;
  ProofReader reader;
  for (uint32_t chunk = 0; chunk < known.size(); ++chunk) {
    if (known[chunk].chType < 0 || withRows.count(chunk) != 0) continue;
    const Proof proof = reader.oldest(chunk, known[chunk].pictureUseOffset);
    if (proof.possible()) found.push_back({chunk, proof});
  }
  return found;
}

bool isMuch(size_t lost, size_t kept) { return lost > kept || isBulk(lost, lost + kept); }

}  // namespace

namespace {

bool isMissingMuch(const JournalSurvey& survey) {
  return isBulk(survey.missing, survey.whole + survey.missing);
}

std::string missingText(const JournalSurvey& survey, const char* journal, const char* what) {
  const uint32_t places = survey.whole + survey.missing;
  return plural(survey.missing, "record") + " of " + std::to_string(places) + " in the " + journal +
         " journal would be given up, and the " + what +
         " that they stood for forgotten, because they are bad in both copies";
}

// Behind the newest row of each chunk; where the chunk is free from by the management data there is
// nothing.
std::map<uint32_t, uint32_t> endsOfChunks(const std::vector<DB_STREAM>& newest,
                                          const std::vector<CHUNK_MANAGE>& known) {
  std::map<uint32_t, uint32_t> ends;
  for (const DB_STREAM& row : newest) {
    if (row.chunkID >= known.size()) continue;
    const uint32_t ring = ChunkSource(kFilePicture, row.chunkID, O_RDONLY).size();
    if (ring == 0) continue;
    const uint32_t end = ringAdvance(row.chunkOffset, row.chunkSize, ring);
    if (end != known[row.chunkID].pictureFreeOffset) ends[row.chunkID] = end;
  }
  return ends;
}

}  // namespace

FuseFinding fuseJournals(const JournalSurvey& events, const JournalSurvey& streams) {
  FuseFinding finding;
  finding.isDone = true;
  if (isMissingMuch(events)) finding.text = missingText(events, "event", "events");
  if (streams.greatestKey == 0 || !isMissingMuch(streams)) return finding;
  finding.text += (finding.text.empty() ? "" : "; ") + missingText(streams, "stream", "recordings");
  return finding;
}

bool chunksOfMissing(const std::vector<CHUNK_MANAGE>& known, std::vector<uint32_t>* chunks,
                     std::string* error) {
  std::set<uint32_t> keys;
  if (!keysOfJournal(&keys, error)) return false;
  std::vector<DB_STREAM> newest;
  if (!selectStreams(kSqlNewestOfChunks, &newest)) {
    *error = kErrFuseRows;
    return false;
  }
  const std::map<uint32_t, uint32_t> ends = endsOfChunks(newest, known);
  ProofReader reader;
  const auto unknown = [&keys](const Proof& proof) {
    return proof.refused || (proof.key != 0 && keys.count(proof.key) == 0);
  };
  for (uint32_t chunk = 0; chunk < known.size(); ++chunk) {
    if (known[chunk].chType < 0) continue;
    const auto end = ends.find(chunk);
    if (unknown(reader.oldest(chunk, known[chunk].pictureUseOffset)) ||
        (end != ends.end() && unknown(reader.at(chunk, end->second)))) {
      chunks->push_back(chunk);
    }
  }
  return true;
}

bool fuseWithoutManagement(uint32_t chunks, FuseFinding* finding, std::string* error) {
  JournalSurvey streams;
  if (surveyJournal(JournalKind::kStream, &streams) != 0) {
    *error = streams.error;
    return false;
  }
  if (streams.greatestKey != 0) return true;
  std::vector<LostChunk> lost;
  ProofReader reader;
  for (uint32_t chunk = 0; chunk < chunks; ++chunk) {
    const Proof proof = reader.at(chunk, 0);
    if (proof.possible()) lost.push_back({chunk, proof});
  }
  if (lost.empty()) return true;
  finding->chunks = numbersOf(lost);
  finding->text = "the management data of all " + plural(chunks, "stream chunk") +
                  " would be made anew and " + chunkText(finding->chunks) +
                  " become free, because both copies of it are bad and the journals hold no "
                  "recording; but pictures are recorded there";
  if (anyRefused(lost)) finding->text += kFuseOrRefused;
  return true;
}

bool fuseLostChunks(const std::vector<CHUNK_MANAGE>& known, const JournalSurvey& streams,
                    FuseFinding* finding, std::string* error) {
  std::set<uint32_t> withRows;
  if (!chunksWithRows(&withRows)) {
    *error = kErrFuseRows;
    return false;
  }
  std::vector<LostChunk> lost = candidates(known, withRows);
  if (lost.empty() || !isMuch(lost.size(), withRows.size())) return true;
  std::set<uint32_t> keys;
  if (!keysOfJournal(&keys, error)) return false;
  const auto explained = [&keys](const LostChunk& one) {
    return one.proof.key != 0 && keys.count(one.proof.key) != 0;
  };
  lost.erase(std::remove_if(lost.begin(), lost.end(), explained), lost.end());
  if (lost.empty() || !isMuch(lost.size(), withRows.size())) return true;
  finding->chunks = numbersOf(lost);
  finding->text =
      chunkText(finding->chunks) + ", of " + std::to_string(lost.size() + withRows.size()) +
      " with recordings, would become free, because the journals list none in them (" +
      plural(streams.liveKeys, "recording") + " in all, " + plural(streams.unreadable, "place") +
      " unreadable); but the management data count them as used, and pictures of "
      "recordings that were never deleted are there";
  if (anyRefused(lost)) finding->text += kFuseOrRefused;
  return true;
}

FuseFinding fuseDeletions(const std::vector<DB_STREAM>& deletions, uint32_t rows) {
  FuseFinding finding;
  if (!isBulk(deletions.size(), rows)) return finding;
  std::set<uint32_t> chunks;
  for (const DB_STREAM& row : deletions) chunks.insert(row.chunkID);
  finding.chunks.assign(chunks.begin(), chunks.end());
  finding.text = plural(deletions.size(), "closed recording") + " of " + std::to_string(rows) +
                 " would be deleted, because none of their entries is left in " +
                 chunkText(finding.chunks);
  return finding;
}

}  // namespace tarn
