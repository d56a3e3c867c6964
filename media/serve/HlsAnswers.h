#pragma once

#include <map>
#include <mutex>
#include <string>

#include "media/serve/HttpRequest.h"
#include "media/serve/HttpResponse.h"
#include "media/serve/LivePlaylist.h"
#include "media/serve/PieceInits.h"
#include "media/serve/RowFollower.h"
#include "media/serve/Turns.h"

namespace tarn {

// Answers at the addresses below /hls/: playlists, and the pieces that they and the page lead to.
// Any number of threads.
class HlsAnswers {
 public:
  // All outlive this.
  HlsAnswers(RowFollower* follower, PieceInits* inits, Turns* turns)
      : follower_(follower), inits_(inits), turns_(turns) {}

  // "/hls/ch1/live.m3u8", "/hls/ch1/12-0-50.m4s". Status 404 for any other.
  HttpResponse answer(const HttpRequest& request);

 private:
  HttpResponse live(int channel, const HttpRequest& request, bool master);
  HttpResponse period(int channel, const HttpRequest& request, bool master);
  HttpResponse init(int channel, const InitPlace& place, const HttpRequest& request);
  HttpResponse piece(int channel, const PiecePlace& place, const HttpRequest& request);
  HttpResponse master(int channel, const std::string& address,
                      const std::vector<PlaylistPiece>& pieces);
  int64_t newestOf(const ServedRows& rows, int channel);
  LivePlaylist::Judgement judge(const ServedRows& rows, int channel, PlaylistPiece* piece);
  std::shared_ptr<const SoundMaker::Description> soundOf(const ServedRows& rows, int channel,
                                                         uint32_t soundID);

  RowFollower* follower_;
  PieceInits* inits_;
  Turns* turns_;
  std::mutex liveMutex_;
  std::map<int, LivePlaylist> live_;  // guarded by liveMutex_; of each channel that was asked for
};

}  // namespace tarn
