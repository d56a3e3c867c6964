// The whole recovery at start-up: of a full card of 64 GiB, of cards with fewer rows, and of a
// smaller card with as many.
#include <algorithm>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "db/CApiDb.h"
#include "recorder/recovery/Recovery.h"

namespace {

using namespace bench;

constexpr uint32_t kAllEvents = 393216;
constexpr uint32_t kAllStreams = 196608;
constexpr uint32_t kPictures = 9000;
constexpr uint32_t kPictureSize = 1024;

std::string figureName(const char* step) {
  std::string name = std::string("ms_") + step;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

// Recovery of a card after power was lost while it recorded, with `eighths` of the rows that the
// journals hold.
std::map<std::string, double> recover(uint64_t cardBytes, uint32_t eighths) {
  Card card("/tmp/full.img", cardBytes);
  const uint32_t events = kAllEvents / 8 * eighths;
  const uint32_t streams = kAllStreams / 8 * eighths;
  std::vector<DB_STREAM> rows = manyStreams(card, streams - 1);
  writeHeaders(&card, rows);
  // The recording that was running, in the last chunk, which it has for itself.
  const uint32_t lastChunk = card.layout().family(tarn::kFileStream).chunks - 1;
  if (rows.back().chunkID == lastChunk) {
    rows.erase(std::find_if(rows.begin(), rows.end(),
                            [lastChunk](const DB_STREAM& row) { return row.chunkID == lastChunk; }),
               rows.end());
  }
  const auto key = static_cast<uint32_t>(rows.size() + 1);
  rows.push_back(writeInterrupted(&card, lastChunk, key, kPictures, kPictureSize));
  const size_t live = rows.size();
  writeEventJournal(&card, manyEvents(events));
  writeStreamJournal(&card, std::move(rows));

  tarn::RecoveryReport report;
  const double cpuBefore = cpuSeconds();
  const double seconds = timed([&] { report = tarn::Recovery().run(); });
  const double cpu = cpuSeconds() - cpuBefore;
  if (!report.ok()) give_up(report.error);
  if (report.eventRows != events || report.streamRows != live) give_up("rows were lost");
  std::map<std::string, double> figures = {{"rows", static_cast<double>(events + live)},
                                           {"card_GiB", static_cast<double>(cardBytes / kGiB)},
                                           {"ms_all", seconds * 1e3},
                                           {"ms_processor", cpu * 1e3}};
  for (const tarn::RecoveryStepTime& step : report.times) {
    figures[figureName(step.step)] = static_cast<double>(step.micros) / 1e3;
  }
  return figures;
}

bool addSize(const char* name, uint64_t cardBytes, uint32_t eighths, int repeats) {
  return add(Figures{"startup", name, repeats, [=] { return recover(cardBytes, eighths); }});
}

const bool kAll = addSize("startup/64GiB_1_of_8", 64 * kGiB, 1, 5) &&
                  addSize("startup/64GiB_2_of_8", 64 * kGiB, 2, 5) &&
                  addSize("startup/64GiB_4_of_8", 64 * kGiB, 4, 3) &&
                  addSize("startup/64GiB_8_of_8", 64 * kGiB, 8, 3) &&
                  addSize("startup/16GiB_2_of_8", 16 * kGiB, 2, 5);

}  // namespace
