#include "media/serve/Playlist.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace tarn {
namespace {

// Seconds with all digits, without a locale's comma.
std::string secondsText(int64_t us) {
  char text[40];
  snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(us / 1000000),
           static_cast<long long>(us % 1000000));
  return text;
}

std::string dateText(int64_t us) {
  const auto seconds = static_cast<time_t>(us / 1000000);
  struct tm utc = {};
  char text[40];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc));
  snprintf(text + length, sizeof text - length, ".%03dZ", static_cast<int>(us % 1000000 / 1000));
  return text;
}

int64_t lengthUs(const Piece& piece) { return std::max<int64_t>(piece.toUs - piece.fromUs, 1000); }

}  // namespace

std::string initName(uint32_t streamID) { return "init-" + std::to_string(streamID) + ".mp4"; }

std::string pieceName(const Piece& piece, bool keysOnly) {
  return std::to_string(piece.streamID) + "-" + std::to_string(piece.first) + "-" +
         std::to_string(piece.count) + (keysOnly ? "-k.m4s" : ".m4s");
}

std::string playlistText(const std::vector<PlaylistPiece>& pieces, uint64_t sequence,
                         uint64_t discontinuities, bool ended) {
  int64_t longest = 1000000;
  for (const PlaylistPiece& one : pieces) longest = std::max(longest, lengthUs(one.piece));
  std::string text = "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:" +
                     std::to_string((longest + 999999) / 1000000) +
                     "\n#EXT-X-MEDIA-SEQUENCE:" + std::to_string(sequence) + "\n";
  if (discontinuities > 0)
    text += "#EXT-X-DISCONTINUITY-SEQUENCE:" + std::to_string(discontinuities) + "\n";
  if (ended) text += "#EXT-X-PLAYLIST-TYPE:VOD\n";
  uint32_t initID = 0;
  bool first = true;
  for (const PlaylistPiece& one : pieces) {
    if (one.piece.discontinuity && !first) text += "#EXT-X-DISCONTINUITY\n";
    if (one.initID != initID) text += "#EXT-X-MAP:URI=\"" + initName(one.initID) + "\"\n";
    if (first || one.piece.discontinuity)
      text += "#EXT-X-PROGRAM-DATE-TIME:" + dateText(one.piece.fromUs) + "\n";
    text +=
        "#EXTINF:" + secondsText(lengthUs(one.piece)) + ",\n" + pieceName(one.piece, false) + "\n";
    initID = one.initID;
    first = false;
  }
  return text + (ended ? "#EXT-X-ENDLIST\n" : "");
}

}  // namespace tarn
