#pragma once

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/PieceInits.h"
#include "media/serve/RowFollower.h"

namespace tarn {

// Answers with what was recorded, to keep. Any number of threads.
class ExportAnswers {
 public:
  // Both outlive this.
  ExportAnswers(RowFollower* follower, PieceInits* inits) : follower_(follower), inits_(inits) {}

  HttpResponse exported(const HttpRequest& request);

 private:
  const ServedRecording* otherFormat(const ServedRows& rows, int channel, int64_t fromUs,
                                     int64_t toUs);
  std::shared_ptr<const SoundMaker::Description> soundOf(const ServedRows& rows, int channel,
                                                         int64_t fromUs, int64_t toUs);

  RowFollower* follower_;
  PieceInits* inits_;
};

}  // namespace tarn
