// Kept on purpose: pieces are joined as they stand, with two blanks where both bring one; the
// statements are matched by log readers.
#include "db/ViewerFilter.h"

#include "db/SelectPieces.h"

namespace tarn {
namespace {

constexpr char kSqlCountEvents[] = "SELECT COUNT(*) FROM EVENT";
constexpr char kSqlViewEvents[] = "SELECT * FROM EVENT";
constexpr char kSqlFirstClause[] = " WHERE ( ";
constexpr char kSqlNextClause[] = " AND ( ";
constexpr char kSqlCloseClause[] = " )";
constexpr char kSqlOpenPeriod[] = "( ";
constexpr char kSqlClosePeriod[] = " )";
constexpr char kSqlStartUpTo[] = "startDate <= ";
constexpr char kSqlBetweenZeroAnd[] = "0 < eventID AND eventID < ";
constexpr char kSqlAndKeyBelow[] = " AND eventID < ";
constexpr char kSqlTrigger[] = "extTrg = ";
constexpr char kSqlOr[] = " OR ";
constexpr char kSqlByDateDown[] = " ORDER BY StartDate DESC, eventID DESC LIMIT ";
constexpr char kSqlByKeyDown[] = " ORDER BY eventID DESC, StartDate DESC LIMIT ";
constexpr char kSqlByDateUp[] = " ORDER BY StartDate ASC, eventID ASC LIMIT ";
constexpr char kSqlByKeyUp[] = " ORDER BY eventID ASC, StartDate ASC LIMIT ";

const char* viewerOrder(bool descending, bool byDate) {
  if (descending) return byDate ? kSqlByDateDown : kSqlByKeyDown;
  return byDate ? kSqlByDateUp : kSqlByKeyUp;
}

}  // namespace

void ViewerFilter::addPeriod(SqlText& sql) const {
  sql.add(kSqlFirstClause);
  if (low == 0) {
    sql.add(kSqlStartUpTo).add(high);
  } else {
    sql.add(kSqlOpenPeriod).add(low).add(kSqlStartsFrom).add(high);
    sql.add(kSqlClosePeriod);
  }
}

void ViewerFilter::addKeys(SqlText& sql, bool first) const {
  sql.add(first ? kSqlFirstClause : kSqlNextClause);
  if (afterID == 0) {
    sql.add(kSqlBetweenZeroAnd).add(beforeID);
  } else {
    sql.add(afterID).add(kSqlAfterKey);
    if (beforeID != 0) sql.add(kSqlAndKeyBelow).add(beforeID);
  }
  if (!first) sql.add(kSqlCloseClause);
}

void ViewerFilter::addTriggers(SqlText& sql, bool first) const {
  sql.add(first ? kSqlFirstClause : kSqlNextClause);
  for (uint32_t i = 0; i < triggerCount; ++i) {
    if (i > 0) sql.add(kSqlOr);
    sql.add(kSqlTrigger).add(uint32_t{triggers[i]});
  }
  if (!first) sql.add(kSqlCloseClause);
}

// The clauses: the first opens the bracket that is closed behind the last.
void ViewerFilter::addClauses(SqlText& sql) const {
  bool first = true;
  if (hasPeriod()) {
    addPeriod(sql);
    first = false;
  }
  if (hasKeys()) {
    addKeys(sql, first);
    first = false;
  }
  if (triggerCount != 0) {
    addTriggers(sql, first);
    first = false;
  }
  if (!first) sql.add(kSqlCloseClause);
}

SqlText ViewerFilter::countSql() const {
  SqlText sql(kSqlCountEvents);
  addClauses(sql);
  return sql;
}

SqlText ViewerFilter::pageSql(bool descending, uint32_t limit) const {
  SqlText sql(kSqlViewEvents);
  addClauses(sql);
  sql.add(viewerOrder(descending, hasPeriod())).add(limit);
  return sql;
}

}  // namespace tarn
