#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "capi/Facts.h"
#include "capi/ReaderProcess.h"
#include "capi/tarn.h"

// What is behind the handles of capi/tarn.h.
struct tarn_card {
  std::shared_ptr<tarn::ReaderProcess> process;
  std::string note;
};

namespace tarn {

// A list of rows whose texts are those of the facts behind them.
template <typename Facts, typename Row>
struct RowsOf {
  std::deque<Facts> facts;  // stay at their places
  std::vector<Row> rows;

  const Row* get(size_t index) const { return index < rows.size() ? &rows[index] : nullptr; }
};

}  // namespace tarn
