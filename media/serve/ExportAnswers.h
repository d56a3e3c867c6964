#pragma once

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/PieceInits.h"
#include "media/serve/RowFollower.h"
#include "media/serve/WritersFirst.h"

namespace tarn {

// Answers with what was recorded, to keep. Any number of threads.
class ExportAnswers {
 public:
  // All outlive this. `sealed`: nothing goes out that is not.
  ExportAnswers(RowFollower* follower, PieceInits* inits, WritersFirst* writers, bool sealed)
      : follower_(follower), inits_(inits), writers_(writers), sealed_(sealed) {}

  HttpResponse exported(const HttpRequest& request);
  // Whether a movie of this period has to be a .mov, for the sound in it.
  bool needsQuickTime(int channel, int64_t fromUs, int64_t toUs);

 private:
  const ServedRecording* otherFormat(const ServedRows& rows, int channel, int64_t fromUs,
                                     int64_t toUs);
  std::shared_ptr<const SoundMaker::Description> soundOf(const ServedRows& rows, int channel,
                                                         int64_t fromUs, int64_t toUs,
                                                         const ServedRecording** other);

  RowFollower* follower_;
  PieceInits* inits_;
  WritersFirst* writers_;
  const bool sealed_;
};

}  // namespace tarn
