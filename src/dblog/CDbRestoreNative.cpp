#include <fcntl.h>
#include <syslog.h>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "dblog/CDbRestore.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalFormat.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"

using namespace tarn;

namespace {

constexpr int kCopies = 2;

// One record of one chunk, open for a change.
class RecordEdit {
 public:
  RecordEdit(const JournalTraits& traits, uint32_t offset) : traits_(traits), offset_(offset) {}
  ~RecordEdit() {
    if (handle_ != -1) fat_.close(handle_);
  }
  RecordEdit(const RecordEdit&) = delete;
  RecordEdit& operator=(const RecordEdit&) = delete;

  // Any chunk file of the family's name, and one that the family has.
  bool openAny(int chunk);
  bool open(int chunk);
  bool seek();
  bool read();
  bool write();
  uint8_t* bytes() { return bytes_; }

 private:
  bool inside();
  long size() const { return static_cast<long>(traits_.recordSize); }

  const JournalTraits& traits_;
  const uint32_t offset_;
  CFATAccess fat_;
  int handle_ = -1;
  char name_[kChunkFileNameRoom];
  uint8_t bytes_[kStreamRecordSize] = {};
};

bool RecordEdit::openAny(int chunk) {
  chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name_);
  handle_ = fat_.open(name_, O_RDWR);
  if (handle_ == -1) syslog(LOG_ERR, kMsgNativeOpen, name_);
  return handle_ != -1;
}

// A number outside the family would lead to somebody else's bytes.
bool RecordEdit::open(int chunk) {
  if (!openAny(chunk)) return false;
  if (chunk >= 0 && chunk < fat_.chunks(handle_)) return true;
  syslog(LOG_ERR, kMsgNativeOpen, name_);
  return false;
}

bool RecordEdit::inside() {
  const uint32_t chunkSize = low32(fat_.getChunkSize(handle_));
  return chunkSize >= traits_.recordSize && offset_ <= chunkSize - traits_.recordSize;
}

bool RecordEdit::seek() {
  if (inside() && fat_.lseek(handle_, static_cast<long>(offset_), SEEK_SET) >= 0) return true;
  syslog(LOG_ERR, kMsgNativeSeek);
  return false;
}

bool RecordEdit::read() {
  if (fat_.read(handle_, bytes_, traits_.recordSize) == size()) return true;
  syslog(LOG_ERR, kMsgNativeRead);
  return false;
}

// Flushed, so that one power loss never tears both copies.
bool RecordEdit::write() {
  sealJournalRecord(bytes_, traits_.crcLength);
  if (!seek()) return false;
  if (fat_.write(handle_, bytes_, traits_.recordSize) == size() && fat_.fsync(handle_) == 0) {
    return true;
  }
  syslog(LOG_ERR, kMsgNativeWrite);
  return false;
}

// Lets `change` edit the record in both copies, the original first; ends at the first failure.
template <typename Change>
int editBothCopies(JournalKind kind, int chunk, uint32_t offset, Change change) {
  const JournalTraits& traits = journalTraits(kind);
  for (int copy = 0; copy < kCopies; ++copy) {
    RecordEdit edit(traits, offset);
    if (!edit.open(chunk + copy) || !edit.seek() || !edit.read()) return -1;
    change(edit.bytes());
    if (!edit.write()) return -1;
  }
  return 0;
}

// Kept on purpose: chunks that are no journal's original are opened all the same, so that a card
// that cannot be opened shows, but nothing in them is changed.
int openBothCopies(int chunk) {
  for (int copy = 0; copy < kCopies; ++copy) {
    RecordEdit edit(journalTraits(JournalKind::kEvent), 0);
    if (!edit.openAny(chunk + copy)) return -1;
  }
  return 0;
}

int deleteRecord(JournalKind kind, uint32_t offset) {
  const JournalTraits& traits = journalTraits(kind);
  return editBothCopies(kind, traits.chunk, offset, [&traits](uint8_t* bytes) {
    setJournalMarker(bytes, traits.deletedMarker);
  });
}

}  // namespace

int CDbRestore::updateEventDBLogNative(const DB_EVENT* event) {
  // Kept on purpose: the result does not tell of failures, the log does.
  editBothCopies(JournalKind::kEvent, kEventJournalChunk, event->backOffset,
                 [event](uint8_t* bytes) { encodeEvent(*event, bytes + kJournalBodyOff); });
  return 0;
}

int CDbRestore::updateStreamDBLogNative(short chunk, unsigned long status, unsigned long recSize,
                                        unsigned long chunkSize, unsigned long endDate,
                                        unsigned long offset) {
  return editBothCopies(JournalKind::kStream, chunk, low32(offset), [=](uint8_t* bytes) {
    uint8_t* body = bytes + kJournalBodyOff;
    putLe32(body + kStreamStatusOff, low32(status));
    putLe32(body + kStreamRecSizeOff, low32(recSize));
    putLe32(body + kStreamChunkSizeOff, low32(chunkSize));
    putLe32(body + kStreamEndDateOff, low32(endDate));
  });
}

int CDbRestore::deleteDBLogNative(short chunk, unsigned long offset) {
  if (chunk == kEventJournalChunk) return deleteRecord(JournalKind::kEvent, low32(offset));
  if (chunk == kStreamJournalChunk) return deleteRecord(JournalKind::kStream, low32(offset));
  return openBothCopies(chunk);
}
