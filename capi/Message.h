#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "base/Endian.h"

// How libTarnC and the process of the tool that reads for it talk: on a socket, a question and then
// its answers up to kDone or kFailed. Both ends are of one version, which the first message proves,
// so this is no format that lasts.
namespace tarn {

enum class MessageKind : uint8_t {
  // Questions
  kListRecordings = 1,  // ListQuestion; a kRecording each
  kListEvents,          // ListQuestion; a kEvent each
  kRead,                // ReadQuestion; some kSample, at most about kBatchBytes; ReadPlace in kDone
  kSeek,                // SeekQuestion; ReadPlace in kDone
  kExport,              // ExportQuestion; kProgress now and then, then a kFile each
  kVerify,              // VerifyQuestion; kProof, a kSeal each, a kSource each
  kStop,                // no question: ends the export that is going on
  // Answers
  kHello = 64,  // HelloFacts, unasked, once the card is open
  kRecording,
  kEvent,
  kSample,
  kProgress,
  kFile,
  kProof,
  kSeal,
  kSource,
  kDone,    // all is answered
  kFailed,  // FailureFacts
};

// A message is its length, its kind and its body.
struct Message {
  static constexpr uint32_t kHeadBytes = 5;
  static constexpr uint32_t kMostBytes = 1u << 28;  // of a body
  // Of pictures in one answer: enough that asking costs nothing, and little to wait for.
  static constexpr uint32_t kBatchBytes = 1u << 20;

  MessageKind kind = MessageKind::kFailed;
  std::vector<uint8_t> body;

  Message() = default;
  explicit Message(MessageKind which) : kind(which) {}
  template <typename Facts>
  Message(MessageKind which, Facts facts);
  // False when it holds anything else than such facts.
  template <typename Facts>
  bool take(Facts* facts) const;

  // Over a socket, whole. False when the other end is gone. Raises no signal.
  bool send(int socket) const;
  bool receive(int socket);
};

// Puts fields behind each other: numbers in eight bytes, texts behind their length.
class MessageWriter {
 public:
  explicit MessageWriter(std::vector<uint8_t>* out) : out_(out) {}
  template <typename... Fields>
  void operator()(Fields&... fields) {
    (put(fields), ...);
  }

 private:
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  void put(Number value) {
    uint8_t bytes[8];
    putLe64(bytes, static_cast<uint64_t>(value));
    append(bytes, sizeof bytes);
  }
  template <typename Bytes, typename = typename Bytes::value_type, typename = void>
  void put(const Bytes& bytes) {
    put(bytes.size());
    append(bytes.data(), bytes.size());
  }
  void put(const std::vector<std::string>& texts) {
    put(texts.size());
    for (const std::string& text : texts) put(text);
  }
  void append(const void* bytes, size_t length);

  std::vector<uint8_t>* out_;
};

// Takes them out again, and believes no length.
class MessageReader {
 public:
  explicit MessageReader(const std::vector<uint8_t>& bytes)
      : at_(bytes.data()), left_(bytes.size()) {}
  template <typename... Fields>
  void operator()(Fields&... fields) {
    (get(&fields), ...);
  }
  bool good() const { return good_ && left_ == 0; }

 private:
  template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
  void get(Number* value) {
    *value = static_cast<Number>(number());
  }
  void get(std::string* text);
  void get(std::vector<uint8_t>* bytes);
  void get(std::vector<std::string>* texts);
  // 0 when there is none.
  uint64_t number();
  // As many bytes as stand there, behind their number; null when they do not.
  const uint8_t* bytes(uint64_t* length);

  const uint8_t* at_;
  uint64_t left_;
  bool good_ = true;
};

template <typename Facts>
Message::Message(MessageKind which, Facts facts) : kind(which) {
  MessageWriter writer(&body);
  facts.fields(writer);
}

template <typename Facts>
bool Message::take(Facts* facts) const {
  MessageReader reader(body);
  facts->fields(reader);
  return reader.good();
}

}  // namespace tarn
