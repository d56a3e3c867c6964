#include "dblog/PictureWalk.h"

#include <syslog.h>
#include <unistd.h>

#include "base/Wrap.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/StreamHeaderFormat.h"
#include "dblog/CDbRestore.h"
#include "dblog/LocalTime.h"
#include "dblog/RepairMessages.h"

namespace tarn {
namespace {

constexpr uint32_t kCoarseInterval = 100;
constexpr uint32_t kSecondsPerPicture = 10;  // more between two pictures is another recording
constexpr uint32_t kStartToleranceSeconds = 10;

}  // namespace

void PictureWalk::run(uint32_t limit, long headerPosition, uint32_t gops, uint32_t startDate) {
  interval_ = kCoarseInterval;
  gops_ = gops;
  // Until a picture is confirmed the way back leads to the header, which is no entry: the walk
  // then ends there.
  checkpoint_.position = headerPosition;
  checkpoint_.gops = gops;
  while (index_ < limit) {
    if (phase_ == Phase::kRetry) beginFine();
    Step step = entry(startDate);
    if (step == Step::kMismatch && phase_ == Phase::kCoarse) {
      phase_ = Phase::kRetry;
      step = Step::kGoOn;
    }
    if (step != Step::kGoOn) return;
    advance();
  }
}

void PictureWalk::beginFine() {
  phase_ = Phase::kFine;
  interval_ = 1;
  picture_->seek(checkpoint_.position, SEEK_SET);
  blockUsed_ = blockSize_ = 0;
  index_ = checkpoint_.index + 1;
  expected_ = wrapAdd32(checkpoint_.expected, 1);
  dataSize_ = checkpoint_.dataSize;
  gops_ = checkpoint_.gops;
}

void PictureWalk::advance() {
  ++index_;
  expected_ = wrapAdd32(expected_, 1);
}

// An entry asks the device only where nothing is left of what the one before brought along; the
// others are taken from there together.
PictureWalk::Step PictureWalk::readEntry(const uint8_t** bytes) {
  if (blockUsed_ == blockSize_) {
    blockUsed_ = 0;
    const long ahead = picture_->readAhead(block_, kBlockSize, kPictureRecordSize);
    blockSize_ = static_cast<uint32_t>(ahead);
  }
  if (blockSize_ == 0) {
    const long got = picture_->read(block_, kPictureRecordSize);
    // A buffered read that the device failed arrives as zeros.
    if (got != long{kPictureRecordSize} || picture_->lastReadFailed()) {
      syslog(LOG_ERR, kMsgRepairPictureRead, kRepairSource, __LINE__, kRepairFunction);
      return Step::kStop;
    }
    blockSize_ = kPictureRecordSize;
  }
  *bytes = block_ + blockUsed_;
  blockUsed_ += kPictureRecordSize;
  return Step::kGoOn;
}

// What was taken ahead never wraps.
long PictureWalk::positionBehindEntry() {
  const long position = picture_->seek(0, SEEK_CUR);
  return position == -1 ? position : position - static_cast<long>(blockSize_ - blockUsed_);
}

PictureWalk::Step PictureWalk::readTime(uint32_t dataOffset, uint32_t* time) {
  if (stream_->seek(static_cast<long>(dataOffset), SEEK_SET) == -1) {
    syslog(LOG_ERR, kMsgRepairStreamSeek, kRepairSource, __LINE__, kRepairFunction);
    return Step::kStop;
  }
  uint8_t data[kTimeStampWindow];
  if (stream_->read(data, sizeof data) != static_cast<long>(sizeof data)) {
    syslog(LOG_ERR, kMsgRepairStreamRead, kRepairSource, __LINE__, kRepairFunction);
    return Step::kStop;
  }
  *time = static_cast<uint32_t>(restore_->getTimeStamp(data, sizeof data));
  return Step::kGoOn;
}

// A stamp that does not fit may be one of two moments.
uint32_t PictureWalk::fitted(uint32_t time, uint32_t startDate) const {
  const uint32_t reference = previous_ != 0 ? previous_ : startDate;
  const bool fits = time >= reference && time - reference <= kSecondsPerPicture * interval_;
  return fits || time == 0 ? time : momentNear(reference, time);
}

PictureWalk::Step PictureWalk::confirm(uint32_t stamp, uint32_t startDate) {
  const uint32_t time = fitted(stamp, startDate);
  if (previous_ != 0) {
    // A clock that was set back is no reason to end.
    if (time > previous_ && time - previous_ > kSecondsPerPicture * interval_)
      return Step::kMismatch;
  } else if (wrapAdd32(time, kStartToleranceSeconds) < startDate) {
    syslog(LOG_INFO, kMsgRepairUnmatched, static_cast<unsigned long>(expected_),
           static_cast<unsigned long>(time), static_cast<unsigned long>(startDate));
    return Step::kStop;
  }
  previous_ = time;
  checkpoint_ = Checkpoint{positionBehindEntry(), index_, expected_, dataSize_, gops_};
  return Step::kGoOn;
}

PictureWalk::Step PictureWalk::entry(uint32_t startDate) {
  const uint8_t* bytes = nullptr;
  const Step read = readEntry(&bytes);
  if (read != Step::kGoOn) return read;
  const uint32_t number = getLe32(bytes + kEntryNumberOff);
  if (expected_ == 0) expected_ = number;
  if (number != expected_) return Step::kMismatch;
  dataSize_ = wrapAdd32(dataSize_, getLe32(bytes + kEntrySizeOff));
  if (expected_ % interval_ != 0) return Step::kGoOn;
  uint32_t time = 0;
  const Step stamped = readTime(getLe32(bytes + kEntryDataOffsetOff), &time);
  return stamped == Step::kGoOn ? confirm(time, startDate) : stamped;
}

}  // namespace tarn
