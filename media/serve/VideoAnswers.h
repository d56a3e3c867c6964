#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/LivePlaylist.h"
#include "media/serve/PieceMaker.h"
#include "media/serve/PieceWalker.h"
#include "media/serve/RowFollower.h"
#include "media/serve/Thumbnails.h"
#include "media/serve/Turns.h"

namespace tarn {

class JsonText;
class QueryReader;

// Answers with pictures: when they were taken, pieces of video, playlists of them, thumbnails and
// exports. Any number of threads.
class VideoAnswers {
 public:
  // The follower outlives this.
  explicit VideoAnswers(RowFollower* follower) : follower_(follower) {}

  HttpResponse pictures(const HttpRequest& request);
  HttpResponse segments(const HttpRequest& request);
  HttpResponse thumbnail(const HttpRequest& request);
  HttpResponse exported(const HttpRequest& request);
  // Addresses below /hls/: "ch1/live.m3u8", "ch1/12-0-50.m4s". Status 404 for any other.
  HttpResponse hls(const HttpRequest& request);

 private:
  // What has to be known before pieces of a recording.
  struct Init {
    uint32_t streamID = 0;  // the recording whose beginning tells it; 0: it cannot be told
    std::string codec;
  };
  static constexpr int kAtATime = 4;

  HttpResponse live(int channel, const HttpRequest& request);
  HttpResponse period(int channel, const HttpRequest& request);
  HttpResponse init(int channel, const std::string& name, const HttpRequest& request);
  HttpResponse media(int channel, const std::string& name, const HttpRequest& request);
  Init initOf(const ServedRows& rows, uint32_t streamID);
  const ServedRecording* otherFormat(const ServedRows& rows, int channel, int64_t fromUs,
                                     int64_t toUs);
  static bool place(PieceWalker* walker, QueryReader* query, bool* behind);
  static void addSegment(JsonText* json, int channel, const Piece& piece, const Init& init,
                         bool keysOnly);

  RowFollower* follower_;
  PieceMaker maker_;
  Thumbnails thumbnails_;
  Turns turns_{kAtATime};
  std::mutex mutex_;
  std::map<uint32_t, Init> inits_;  // guarded by mutex_, as below; of recordings
  std::map<std::string, uint32_t> initOfSets_;
  std::mutex liveMutex_;
  std::map<int, LivePlaylist> live_;  // guarded by liveMutex_; of each channel that was asked for
};

}  // namespace tarn
