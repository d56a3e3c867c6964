#include "capi/Message.h"

#include <sys/socket.h>

#include <cerrno>

namespace tarn {
namespace {

bool sendAll(int socket, const uint8_t* bytes, size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(socket, bytes, length, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

bool receiveAll(int socket, uint8_t* bytes, size_t length) {
  while (length > 0) {
    const ssize_t got = ::recv(socket, bytes, length, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    length -= static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

void MessageWriter::append(const void* bytes, size_t length) {
  const auto* from = static_cast<const uint8_t*>(bytes);
  out_->insert(out_->end(), from, from + length);
}

uint64_t MessageReader::number() {
  good_ = good_ && left_ >= sizeof(uint64_t);
  if (!good_) return 0;
  const uint64_t value = getLe64(at_);
  at_ += sizeof value;
  left_ -= sizeof value;
  return value;
}

const uint8_t* MessageReader::bytes(uint64_t* length) {
  *length = number();
  good_ = good_ && *length <= left_;
  if (!good_) return nullptr;
  const uint8_t* const begin = at_;
  at_ += *length;
  left_ -= *length;
  return begin;
}

void MessageReader::get(std::string* text) {
  uint64_t length = 0;
  const uint8_t* begin = bytes(&length);
  if (begin != nullptr) text->assign(begin, begin + length);
}

void MessageReader::get(std::vector<uint8_t>* out) {
  uint64_t length = 0;
  const uint8_t* begin = bytes(&length);
  if (begin != nullptr) out->assign(begin, begin + length);
}

void MessageReader::get(std::vector<std::string>* texts) {
  for (uint64_t count = number(); good_ && count > 0; --count) get(&texts->emplace_back());
}

bool Message::send(int socket) const {
  uint8_t head[kHeadBytes];
  putLe32(head, static_cast<uint32_t>(body.size()));
  head[4] = static_cast<uint8_t>(kind);
  return body.size() <= kMostBytes && sendAll(socket, head, sizeof head) &&
         sendAll(socket, body.data(), body.size());
}

bool Message::receive(int socket) {
  uint8_t head[kHeadBytes];
  if (!receiveAll(socket, head, sizeof head)) return false;
  const uint32_t length = getLe32(head);
  if (length > kMostBytes) return false;
  kind = static_cast<MessageKind>(head[4]);
  body.resize(length);
  return receiveAll(socket, body.data(), length);
}

}  // namespace tarn
