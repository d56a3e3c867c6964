#pragma once

#include <cstdint>
#include <string>

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/PieceInits.h"
#include "media/serve/PieceWalker.h"
#include "media/serve/RowFollower.h"
#include "media/serve/Thumbnails.h"
#include "media/serve/Turns.h"

namespace tarn {

class JsonText;
class QueryReader;

// Answers about pictures and sound: when pictures were taken, which pieces there are, thumbnails.
// Any number of threads.
class VideoAnswers {
 public:
  // All outlive this.
  VideoAnswers(RowFollower* follower, PieceInits* inits, Turns* turns)
      : follower_(follower), inits_(inits), turns_(turns) {}

  HttpResponse pictures(const HttpRequest& request);
  HttpResponse segments(const HttpRequest& request);
  HttpResponse thumbnail(const HttpRequest& request);

 private:
  struct PictureAt {
    uint32_t streamID = 0;
    uint32_t index = 0;
  };

  static bool readAfter(QueryReader* query, PictureAt* after);
  static bool place(PieceWalker* walker, QueryReader* query, const PictureAt& after);
  static void addSegment(JsonText* json, int channel, const PlaylistPiece& one,
                         const std::string& codec, bool keysOnly, bool sound);

  RowFollower* follower_;
  PieceInits* inits_;
  Turns* turns_;
  Thumbnails thumbnails_;
};

}  // namespace tarn
