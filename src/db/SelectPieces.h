#pragma once

namespace tarn {

// Pieces that several of the gateway's SELECT statements share.
inline constexpr char kSqlFromEvent[] = "SELECT * FROM EVENT ";
inline constexpr char kSqlFromStream[] = "SELECT * FROM STREAM ";
inline constexpr char kSqlFirstEvent[] = " ORDER BY eventID ASC LIMIT 1";
inline constexpr char kSqlLastEvent[] = " ORDER BY eventID DESC LIMIT 1";
inline constexpr char kSqlWhere[] = "WHERE ";
inline constexpr char kSqlStartsFrom[] = " <= startDate AND startDate <= ";
inline constexpr char kSqlAfterKey[] = " < eventID";

}  // namespace tarn
