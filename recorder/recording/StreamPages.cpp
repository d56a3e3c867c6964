#include "recorder/recording/StreamPages.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "db/CApiDb.h"

namespace tarn {
namespace {

constexpr char kSqlPage[] =
    "SELECT * FROM STREAM WHERE streamID > %" PRIu32 " AND ( ( startDate <= %" PRIu32
    " AND ( %" PRIu32 " <= endDate OR endDate = 0 ) ) OR ( %" PRIu32
    " <= startDate AND startDate <= %" PRIu32 " ) )";
constexpr char kSqlTrigger[] = " AND inTrg = %" PRIu32;
constexpr char kSqlOrder[] = " ORDER BY streamID ASC LIMIT %" PRIu32;
constexpr size_t kDigits = 10;
constexpr size_t kSqlRoom = sizeof kSqlPage + sizeof kSqlTrigger + sizeof kSqlOrder + 7 * kDigits;

}  // namespace

int32_t StreamPages::next(DB_STREAM* out, uint32_t room) {
  char sql[kSqlRoom];
  int length = snprintf(sql, sizeof sql, kSqlPage, after_, from_, from_, from_, to_);
  const auto end = [&] { return sql + length; };
  const auto left = [&] { return sizeof sql - static_cast<size_t>(length); };
  if (inTrg_ != 0) length += snprintf(end(), left(), kSqlTrigger, inTrg_);
  snprintf(end(), left(), kSqlOrder, room);
  db_->setSql(sql);
  if (db_->getStatus() != 1) return -1;  // an empty page of its own says nothing
  const uint32_t count = std::min(db_->getNTuple(), room);
  for (uint32_t i = 0; i < count; ++i) {
    if (db_->getStreamValue(static_cast<long>(i), &out[i]) != 0) return -1;
  }
  if (count > 0) after_ = out[count - 1].streamID;
  return static_cast<int32_t>(count);
}

}  // namespace tarn
