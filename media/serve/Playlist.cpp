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

void addPiece(std::vector<PlaylistPiece>* pieces, PlaylistPiece piece) {
  if (!pieces->empty() && pieces->back().init != piece.init) piece.piece.discontinuity = true;
  pieces->push_back(piece);
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
  InitPlace init;
  bool first = true;
  for (const PlaylistPiece& one : pieces) {
    if (one.piece.discontinuity && !first) text += "#EXT-X-DISCONTINUITY\n";
    if (one.init != init) text += "#EXT-X-MAP:URI=\"" + nameOf(one.init) + "\"\n";
    if (first || one.piece.discontinuity)
      text += "#EXT-X-PROGRAM-DATE-TIME:" + dateText(one.piece.fromUs) + "\n";
    text +=
        "#EXTINF:" + secondsText(lengthUs(one.piece)) + ",\n" + nameOf(placeOf(one, false)) + "\n";
    init = one.init;
    first = false;
  }
  return text + (ended ? "#EXT-X-ENDLIST\n" : "");
}

std::string masterText(const std::string& address, const std::vector<std::string>& codecs,
                       const std::vector<PlaylistPiece>& pieces, PictureSize size) {
  // Of what is around the pictures, and of sound, which is little beside them.
  constexpr uint64_t kBesideBits = 256000;
  uint64_t most = 0;
  for (const PlaylistPiece& one : pieces) {
    const auto lasts = static_cast<uint64_t>(lengthUs(one.piece));
    most = std::max(most, one.piece.bytes * 8 * 1000000 / lasts);
  }
  std::string all;
  for (const std::string& codec : codecs) all += (all.empty() ? "" : ",") + codec;
  return "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-STREAM-INF:BANDWIDTH=" +
         std::to_string(most + kBesideBits) + ",RESOLUTION=" + std::to_string(size.width) + "x" +
         std::to_string(size.height) + ",CODECS=\"" + all + "\"\n" + address + "\n";
}

}  // namespace tarn
