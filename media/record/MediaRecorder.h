#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/record/RecordListener.h"
#include "media/record/RecordRequest.h"

namespace tarn {

// Records inputs, each on its channel and in a thread of its own, as they are: cameras until they
// are told to stop, however often one goes away, everything else until its end. An input that fails
// stops no other. Needs a running recorder (database and management server) around it, and is, as
// every RecordingSession, one of the one process that may record.
//
// Throws nothing. Used by one thread.
class TARN_API MediaRecorder {
 public:
  // The listener outlives this.
  MediaRecorder(const RecordRequest& request, RecordListener* listener) noexcept;
  ~MediaRecorder();
  MediaRecorder(const MediaRecorder&) = delete;
  MediaRecorder& operator=(const MediaRecorder&) = delete;

  // Records until every input has ended or failed, or the listener asks for a stop. Once. False
  // after a failure of any channel, which the listener was told, and when it could not begin:
  // error() then says why. A program that ends behind it calls CDbLog::finish() first.
  bool run() noexcept;
  // Why nothing was recorded at all: a request that contradicts itself, no memory, no threads.
  // "" otherwise.
  const char* error() const noexcept;
  // What was recorded, in the order of the inputs; behind run(). Empty when it could not begin.
  std::vector<ChannelRecording> recordings() const noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
