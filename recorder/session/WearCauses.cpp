#include "recorder/session/WearCauses.h"

#include <initializer_list>

#include "fat/ChunkFiles.h"

namespace tarn {
namespace {

using Share = CardWear::Share;

Share sum(std::initializer_list<Share> shares) {
  Share all;
  for (const Share& share : shares) {
    all.bytes += share.bytes;
    all.writes += share.writes;
    all.flushes += share.flushes;
  }
  return all;
}

Share without(const Share& all, const Share& part) {
  return {all.bytes - part.bytes, all.writes - part.writes, all.flushes - part.flushes};
}

}  // namespace

std::vector<WearCause> wearCauses(const CardWear& wear) {
  return {{"data", wear.kinds[kFileStream]},
          {"entries", without(wear.kinds[kFilePicture], wear.headers)},
          {"headers", wear.headers},
          {"journal", wear.kinds[kFileJournal]},
          {"management", sum({wear.asked, wear.kinds[kFileStreamManage],
                              wear.kinds[kFileJournalManage], wear.kinds[kFileSyslogManage]})},
          {"log", wear.kinds[kFileSyslog]}};
}

}  // namespace tarn
