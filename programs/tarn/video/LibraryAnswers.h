#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "capi/Facts.h"
#include "capi/Message.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// What a program asks of the card through the library for C. Used by one thread.
class LibraryAnswers {
 public:
  // `inView`: the paths of a question are to be looked for where a private view has them.
  LibraryAnswers(int socket, bool inView) : socket_(socket), inView_(inView) {}

  // Answers one question, whole. False when nobody is there any more.
  bool answer(const Message& question);

 private:
  struct OpenRecording {
    uint32_t id;
    RecordingReader reader;
  };

  template <typename Facts>
  bool tell(MessageKind kind, const Facts& facts) const {
    return Message(kind, facts).send(socket_);
  }
  bool failed(const std::string& text) const;
  bool done() const { return Message(MessageKind::kDone).send(socket_); }

  bool listRecordings(const ListQuestion& question);
  bool listEvents(const ListQuestion& question);
  bool read(const ReadQuestion& question);
  bool seek(const SeekQuestion& question);
  bool exportFiles(const ExportQuestion& question);
  bool verify(const VerifyQuestion& question) const;

  RecordingFacts factsOf(const DB_STREAM& row, const std::vector<DB_STREAM>& copies);
  EventFacts factsOf(const DB_EVENT& event, const std::vector<DB_STREAM>& copies);
  int32_t zoneOf(const DB_STREAM& row);
  RecordingReader* open(uint32_t id, std::string* error);
  // A card that is `gone` is told as the answer's failure.
  bool tellPicture(RecordingReader* reader, uint32_t index, uint64_t* bytes, bool* gone) const;
  bool tellSound(const SampleFacts& block, uint64_t* bytes) const;
  bool goesOn(uint64_t written, bool progress) const;
  std::string pathOf(const std::string& path) const;

  const int socket_;
  const bool inView_;
  std::list<OpenRecording> open_;      // the one that was asked for last in front
  std::map<uint32_t, int32_t> zones_;  // of recordings that do not change it any more
};

}  // namespace tarn
