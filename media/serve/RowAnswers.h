#pragma once

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/RowFollower.h"
#include "media/serve/Timeline.h"

namespace tarn {

class QueryReader;

// Answers from the rows alone: what was recorded and what happened, in lists and counted. Any
// number of threads.
class RowAnswers {
 public:
  // The follower outlives this.
  explicit RowAnswers(RowFollower* follower) : follower_(follower) {}

  HttpResponse timeline(const HttpRequest& request);
  HttpResponse recordings(const HttpRequest& request);
  HttpResponse events(const HttpRequest& request);

  // The stretches that recordings of pictures of a channel show.
  std::vector<TimeSpan> covered(const ServedRows& rows, const std::vector<uint32_t>& places);
  // From the oldest picture to the newest one or now, unless the question says otherwise.
  TimeSpan periodOf(QueryReader* query, const ServedRows& rows);
  // Where a recording ends, or has come to.
  int64_t endOf(const ServedRecording& recording);

 private:
  RowFollower* follower_;
};

// Of the wall clock, in microseconds since 1970.
int64_t wallClockUs();

}  // namespace tarn
