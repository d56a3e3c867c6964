#pragma once

#include <cstdint>
#include <memory>

#include "chunk/CTARNStreamChunk.h"
#include "recorder/session/RecordingError.h"

class CTARNStreamManager;

namespace tarn {

// The two chunks that a recording is written to: its data and its entries. What fails in them, on
// the card or at the server, is told by error(), the first failure for good. Used by the session's
// thread.
class ChunkPair {
 public:
  // The manager outlives this.
  explicit ChunkPair(CTARNStreamManager* manager);

  // Opens both for writing, or none.
  bool open(int number);
  void close();
  int number() const { return number_; }  // -1 when none is open
  // Of an open pair.
  CTARNStreamChunk* stream() const { return stream_.get(); }
  CTARNStreamChunk* picture() const { return picture_.get(); }
  uint32_t pictureSize() const { return static_cast<uint32_t>(picture_->getChunkSize()); }

  // Takes both addresses from the server anew: deleting a recording may have moved them.
  bool refresh();
  // What was written to a chunk is on the card behind it; `text`: the error when it is not.
  bool toCard(CTARNStreamChunk* chunk, const char* text);
  // Tells the server how far a chunk is written.
  bool tell(CTARNStreamChunk* chunk);
  bool sync(CTARNStreamChunk* chunk, const char* text) {
    return toCard(chunk, text) && tell(chunk);
  }
  // The same of the picture chunk, to which a header was written.
  bool syncHeader(const char* text);
  // Has the server save the management data.
  bool save();

  bool serverAnswers();
  // How long a server that is away is waited for, in milliseconds.
  int64_t patienceMs() const { return patienceMs_; }
  void setPatience(int64_t milliseconds) { patienceMs_ = milliseconds; }

  // Notes a failure; the first one counts. False.
  bool fail(RecordingError error, const char* text);
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  bool failServer();
  bool openArea(std::unique_ptr<CTARNStreamChunk>* chunk, uint8_t area, int number);
  bool refreshUsage(CTARNStreamChunk* chunk);

  CTARNStreamManager* manager_;
  int number_ = -1;
  std::unique_ptr<CTARNStreamChunk> stream_;
  std::unique_ptr<CTARNStreamChunk> picture_;
  int64_t patienceMs_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

}  // namespace tarn
