// Positions of CTARNChunkBase.
#include <syslog.h>

#include <cerrno>
#include <cstdio>

#include "base/Wrap.h"
#include "chunk/CTARNChunkBase.h"
#include "chunk/ChunkMessages.h"

using tarn::asSigned32;
using tarn::low32;
using tarn::wrapAdd32;
using tarn::wrapSub32;

namespace {

int32_t offset32(long offset) { return asSigned32(low32(static_cast<unsigned long>(offset))); }

uint32_t magnitude(int32_t offset) {
  const auto bits = static_cast<uint32_t>(offset);
  return offset < 0 ? wrapSub32(0, bits) : bits;
}

void warnIf(bool wrong, const char* text) {
  if (wrong) syslog(LOG_WARNING, "%s", text);
}

}  // namespace

long CTARNChunkBase::currentOffset() { return fat.lseek(handle, 0, SEEK_CUR); }

long CTARNChunkBase::seekTo(uint32_t position) {
  if (asSigned32(position) < 0) {
    errno = EINVAL;
    return -1;
  }
  return fat.lseek(handle, static_cast<long>(position), SEEK_SET);
}

long CTARNChunkBase::seek(long offset, int whence) {
  const int32_t distance = offset32(offset);
  if (whence == SEEK_SET) return seekTo(static_cast<uint32_t>(distance));
  if (whence == SEEK_END) return fat.lseek(handle, distance, SEEK_END);  // which refuses it
  if (whence != SEEK_CUR) return -1;
  const long position = currentOffset();
  if (position == -1) {
    syslog(LOG_ERR, tarn::kMsgSeekSeek, errno);
    return -1;
  }
  if (distance == 0) return position;
  auto from = low32(static_cast<unsigned long>(position));
  if (asSigned32(wrapSub32(chunkSize, from)) <= distance) from = wrapSub32(from, chunkSize);
  return seekTo(wrapAdd32(from, static_cast<uint32_t>(distance)));
}

bool CTARNChunkBase::eventWraps() const { return wrapSub32(chunkSize, eventStart) < eventSize; }

uint32_t CTARNChunkBase::eventLastByte() const {
  const uint32_t end = eventWraps() ? wrapSub32(eventSize, wrapSub32(chunkSize, eventStart))
                                    : wrapAdd32(eventStart, eventSize);
  return wrapSub32(end, 1);
}

long CTARNChunkBase::seekEvent(long offset, int whence) {
  const int32_t distance = offset32(offset);
  switch (whence) {
    case SEEK_CUR:
      return seekEventFromCurrent(distance);
    case SEEK_SET:
      return seekEventFromStart(distance);
    case SEEK_END:
      return seekEventFromEnd(distance);
    default:
      return -1;
  }
}

// Warns outside the event but goes there all the same: scans for lost data walk over its ends.
long CTARNChunkBase::seekEventFromCurrent(int32_t offset) {
  const long current = currentOffset();
  if (current == -1) {
    syslog(LOG_ERR, tarn::kMsgSeekEventSeek, errno);
    return -1;
  }
  if (offset == 0) return current;
  const auto position = low32(static_cast<unsigned long>(current));
  return seekTo(offset > 0 ? forwardTarget(position, static_cast<uint32_t>(offset))
                           : backwardTarget(position, offset));
}

uint32_t CTARNChunkBase::forwardTarget(uint32_t position, uint32_t offset) const {
  const bool wraps = eventWraps();
  const uint32_t last = eventLastByte();
  const uint32_t toEnd = wrapSub32(chunkSize, position);
  if (asSigned32(toEnd) > asSigned32(offset)) {
    const uint32_t target = wrapAdd32(position, offset);
    warnIf(!wraps && (target > last || eventStart > target), tarn::kMsgSeekEventRange3);
    warnIf(wraps && target > last, tarn::kMsgSeekEventRange4);
    return target;
  }
  const uint32_t target = wrapSub32(offset, toEnd);
  warnIf(!wraps, tarn::kMsgSeekEventRange1);
  warnIf(wraps && target > last, tarn::kMsgSeekEventRange2);
  return target;
}

uint32_t CTARNChunkBase::backwardTarget(uint32_t position, int32_t offset) const {
  const bool wraps = eventWraps();
  const uint32_t last = eventLastByte();
  const uint32_t target = wrapAdd32(position, static_cast<uint32_t>(offset));
  if (asSigned32(target) >= 0) {
    warnIf(!wraps && (target > last || eventStart > target), tarn::kMsgSeekEventRange7);
    warnIf(wraps && target > last && eventStart > target, tarn::kMsgSeekEventRange8);
    return target;
  }
  const uint32_t wrapped = wrapAdd32(chunkSize, target);
  warnIf(!wraps, tarn::kMsgSeekEventRange5);
  warnIf(wraps && eventStart > wrapped, tarn::kMsgSeekEventRange6);
  return wrapped;
}

// The place just behind the event is allowed; without an event every place is.
long CTARNChunkBase::seekEventFromStart(int32_t offset) {
  const uint32_t distance = magnitude(offset);
  if (offset < 0 || (eventSize != 0 && eventSize < distance)) {
    syslog(LOG_WARNING, tarn::kMsgSeekEventSet);
    syslog(LOG_WARNING, tarn::kMsgSeekEventSetSizes, static_cast<unsigned long>(eventSize),
           static_cast<long>(offset));
    return -1;
  }
  const uint32_t target = wrapAdd32(eventStart, distance);
  const bool wraps = wrapSub32(chunkSize, eventStart) <= distance;
  return seekTo(wraps ? wrapSub32(target, chunkSize) : target);
}

long CTARNChunkBase::seekEventFromEnd(int32_t offset) {
  const uint32_t distance = magnitude(offset);
  if (offset > 0 || eventSize < distance) {
    syslog(LOG_WARNING, tarn::kMsgSeekEventEnd);
    syslog(LOG_WARNING, tarn::kMsgSeekEventEndSizes, static_cast<unsigned long>(eventSize),
           static_cast<long>(offset));
    return -1;
  }
  const uint32_t target = wrapSub32(wrapAdd32(eventStart, eventSize), distance);
  return seekTo(chunkSize > target ? target : wrapSub32(target, chunkSize));
}
