#pragma once

#include <cstdint>

#include "db/SqlText.h"

namespace tarn {

// What a viewer page asks for.
struct ViewerFilter {
  uint32_t low;  // period, ordered; both 0 = none
  uint32_t high;
  uint32_t afterID;
  uint32_t beforeID;
  const unsigned short* triggers;
  uint32_t triggerCount;  // 0 = every trigger

  // How many events there are.
  SqlText countSql() const;
  // `limit` of them.
  SqlText pageSql(bool descending, uint32_t limit) const;

 private:
  bool hasPeriod() const { return low != 0 || high != 0; }
  bool hasKeys() const { return afterID != 0 || beforeID != 0; }
  void addClauses(SqlText& sql) const;
  void addPeriod(SqlText& sql) const;
  void addKeys(SqlText& sql, bool first) const;
  void addTriggers(SqlText& sql, bool first) const;
};

}  // namespace tarn
