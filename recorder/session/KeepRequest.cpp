#include "recorder/session/KeepRequest.h"

#include <algorithm>
#include <cstring>

#include "base/Endian.h"

namespace tarn {
namespace {

void putTime(uint8_t* at, PictureTime time) {
  putLe32(at, time.seconds);
  putLe32(at + 4, time.micros);
}

PictureTime getTime(const uint8_t* at) { return {getLe32(at), getLe32(at + 4)}; }

}  // namespace

void encodeKeepRequest(const KeepRequest& request, uint8_t* out) {
  putLe32(out + kKeepCommandOff, static_cast<uint32_t>(request.command));
  putLe32(out + kKeepNumberOff, request.number);
  putTime(out + kKeepFromOff, request.from);
  putTime(out + kKeepToOff, request.to);
  putLe32(out + kKeepChannelOff, static_cast<uint32_t>(request.channel));
  putLe32(out + kKeepBudgetOff, request.budgetChunks);
  putLe32(out + kKeepStrictOff, request.strict ? 1 : 0);
}

bool decodeKeepRequest(const uint8_t* bytes, long size, KeepRequest* out) {
  if (size != long{kKeepRequestSize}) return false;
  const uint32_t command = getLe32(bytes + kKeepCommandOff);
  if (command < 1 || command > 4) return false;
  out->command = static_cast<KeepCommand>(command);
  out->number = getLe32(bytes + kKeepNumberOff);
  out->from = getTime(bytes + kKeepFromOff);
  out->to = getTime(bytes + kKeepToOff);
  out->channel = static_cast<int32_t>(getLe32(bytes + kKeepChannelOff));
  out->budgetChunks = getLe32(bytes + kKeepBudgetOff);
  out->strict = getLe32(bytes + kKeepStrictOff) != 0;
  return out->from.micros < 1000000 && out->to.micros < 1000000;
}

void encodeKeepAnswer(const KeepAnswer& answer, uint8_t* out) {
  memset(out, 0, kKeepAnswerSize);
  putLe32(out + kKeepStateOff, static_cast<uint32_t>(answer.state));
  putLe32(out + kKeepTicketOff, answer.ticket);
  putLe32(out + kKeepCopiesOff, answer.result.copies);
  putLe32(out + kKeepMissingOff, answer.result.missing);
  putLe32(out + kKeepGivenUpOff, answer.result.givenUp);
  putLe32(out + kKeepPicturesOff, static_cast<uint32_t>(answer.result.pictures));
  putLe32(out + kKeepBytesOff, static_cast<uint32_t>(answer.result.bytes));
  putLe32(out + kKeepBytesOff + 4, static_cast<uint32_t>(answer.result.bytes >> 32));
  const size_t length = std::min<size_t>(answer.text.size(), kKeepTextRoom - 1);
  memcpy(out + kKeepTextOff, answer.text.data(), length);
}

bool decodeKeepAnswer(const uint8_t* bytes, long size, KeepAnswer* out) {
  if (size != long{kKeepAnswerSize} || getLe32(bytes + kKeepStateOff) > 3) return false;
  out->state = static_cast<KeepState>(getLe32(bytes + kKeepStateOff));
  out->ticket = getLe32(bytes + kKeepTicketOff);
  out->result.copies = getLe32(bytes + kKeepCopiesOff);
  out->result.missing = getLe32(bytes + kKeepMissingOff);
  out->result.givenUp = getLe32(bytes + kKeepGivenUpOff);
  out->result.pictures = getLe32(bytes + kKeepPicturesOff);
  out->result.bytes = getLe32(bytes + kKeepBytesOff) | uint64_t{getLe32(bytes + kKeepBytesOff + 4)}
                                                           << 32;
  const auto* text = reinterpret_cast<const char*>(bytes + kKeepTextOff);
  out->text.assign(text, strnlen(text, kKeepTextRoom));
  return true;
}

}  // namespace tarn
