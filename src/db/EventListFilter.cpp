// Kept on purpose: pieces are joined as they stand, with two blanks where both bring one; the
// statements are matched by log readers.
#include "db/EventListFilter.h"

#include "db/SelectPieces.h"

namespace tarn {
namespace {

constexpr char kSqlWhereStartedBy[] = "WHERE startDate <= ";
constexpr char kSqlAnd[] = " AND ";
constexpr char kSqlUntilEnd[] = " <= endDate";
constexpr char kSqlWhereTrigger[] = "WHERE extTrg = ";
constexpr char kSqlAndTrigger[] = " AND extTrg = ";
constexpr char kSqlFromKey[] = " <= eventID";
constexpr char kSqlWhereToKey[] = "WHERE eventID <= ";
constexpr char kSqlWhereBeforeKey[] = "WHERE eventID < ";
constexpr char kSqlAndToKey[] = " AND eventID <= ";
constexpr char kSqlAndBeforeKey[] = " AND eventID < ";

}  // namespace

void EventListFilter::addPeriod(SqlText& sql) const {
  if (startTime == 0) return;  // kept on purpose: an end alone is no period
  if (endTime != 0) {
    sql.add(kSqlWhere).add(startTime).add(kSqlStartsFrom).add(endTime);
  } else {
    sql.add(kSqlWhereStartedBy).add(startTime).add(kSqlAnd).add(startTime);
    sql.add(kSqlUntilEnd);
  }
}

void EventListFilter::addCursor(SqlText& sql, bool first, uint32_t cursor, bool inclusive) const {
  if (descending) {
    sql.add(first ? (inclusive ? kSqlWhereToKey : kSqlWhereBeforeKey)
                  : (inclusive ? kSqlAndToKey : kSqlAndBeforeKey));
    sql.add(cursor);
  } else {
    sql.add(first ? kSqlWhere : kSqlAnd).add(cursor).add(inclusive ? kSqlFromKey : kSqlAfterKey);
  }
}

SqlText EventListFilter::statement(uint32_t cursor, bool firstPass) const {
  SqlText text(kSqlFromEvent);
  const size_t baseLength = text.length();
  addPeriod(text);
  if (extTrg != 0) {
    text.add(text.length() == baseLength ? kSqlWhereTrigger : kSqlAndTrigger);
    text.add(uint32_t{extTrg});
  }
  if (cursor != 0 || !firstPass) {
    addCursor(text, text.length() == baseLength, cursor, firstPass);
  }
  text.add(descending ? kSqlLastEvent : kSqlFirstEvent);
  return text;
}

}  // namespace tarn
