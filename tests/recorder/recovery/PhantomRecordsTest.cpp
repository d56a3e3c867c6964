#include <gmock/gmock.h>

#include "recorder/recovery/PhantomRecords.h"

namespace tarn_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Phantoms of a journal whose live records have these keys, 0 where there is none, with the saved
// free offset at a place.
std::vector<uint32_t> phantoms(const std::vector<uint32_t>& keys, uint32_t free) {
  std::vector<tarn::LiveRecord> live;
  std::vector<uint32_t> places;
  for (uint32_t i = 0; i < keys.size(); ++i) {
    if (keys[i] == 0) continue;
    live.push_back({i * 64, keys[i], 0});
    places.push_back(i);
  }
  std::vector<uint32_t> found;
  for (const uint32_t index : tarn::findPhantomRecords(live, free * 64)) {
    found.push_back(places[index]);
  }
  return found;
}

TEST(PhantomRecords, AJournalInOrderHasNone) {
  EXPECT_THAT(phantoms({}, 0), IsEmpty());
  EXPECT_THAT(phantoms({7}, 0), IsEmpty());
  EXPECT_THAT(phantoms({7}, 1), IsEmpty());
  // Wherever the ring has come round, and whatever is known of its free offset.
  for (uint32_t start = 0; start < 8; ++start) {
    std::vector<uint32_t> keys(8);
    for (uint32_t i = 0; i < 8; ++i) keys[(start + i) % 8] = 20 + 2 * i;
    for (uint32_t free = 0; free <= 8; ++free) {
      EXPECT_THAT(phantoms(keys, free), IsEmpty()) << start << " " << free;
      std::vector<uint32_t> some = keys;  // with deleted ones
      some[1] = some[4] = some[5] = 0;
      EXPECT_THAT(phantoms(some, free), IsEmpty()) << start << " " << free;
    }
  }
}

TEST(PhantomRecords, ARecordUnderAnEarlierKeyIsOne) {
  EXPECT_THAT(phantoms({1, 2, 3, 3}, 4), ElementsAre(3u));
  EXPECT_THAT(phantoms({1, 2, 3, 3}, 3), ElementsAre(3u)) << "the free offset was not saved";
  EXPECT_THAT(phantoms({1, 2, 3, 2, 3}, 5), ElementsAre(3u, 4u)) << "of two connections";
  EXPECT_THAT(phantoms({1, 2, 3, 3, 3, 4}, 6), ElementsAre(3u, 4u)) << "it went on later";
  EXPECT_THAT(phantoms({9, 9}, 2), ElementsAre(1u));
  EXPECT_THAT(phantoms({9, 9}, 1), ElementsAre(1u));
}

TEST(PhantomRecords, InARingThatHasComeRound) {
  EXPECT_THAT(phantoms({8, 9, 10, 10, 5, 6, 7}, 4), ElementsAre(3u));
  EXPECT_THAT(phantoms({8, 9, 10, 8, 10, 8, 4, 5, 6, 7}, 6), ElementsAre(3u, 4u, 5u));
  EXPECT_THAT(phantoms({8, 9, 10, 8, 10, 8, 4, 5, 6, 7}, 5), ElementsAre(3u, 4u, 5u));
  EXPECT_THAT(phantoms({8, 7, 9, 5, 6, 7}, 3), ElementsAre(1u)) << "in the middle";
  EXPECT_THAT(phantoms({10, 9, 9}, 2), ElementsAre(1u)) << "of two that are alike the older stays";
}

// One whose key is below all others cannot be told from the oldest record: nothing that may be a
// row is taken for a phantom.
TEST(PhantomRecords, TheFewestRecordsAreTaken) {
  EXPECT_THAT(phantoms({8, 9, 10, 3, 5, 6, 7}, 4), IsEmpty());
  EXPECT_THAT(phantoms({8, 9, 10, 3, 3, 5, 6, 7}, 5), ElementsAre(4u));
  // A free offset that is far behind, or was made anew, costs no row.
  for (uint32_t free = 0; free < 10; ++free) {
    EXPECT_THAT(phantoms({8, 9, 10, 10, 3, 4, 5, 6, 7}, free), ElementsAre(3u)) << free;
  }
}

TEST(PhantomRecords, TheRecordOfAKeptCopyStaysAmongNewerOnes) {
  std::vector<tarn::LiveRecord> live = {{0, 30, 0}, {64, 5, 0, true}, {128, 31, 0}, {192, 32, 0}};
  EXPECT_THAT(tarn::findPhantomRecords(live, 256), IsEmpty());
  live[1].kept = false;
  EXPECT_THAT(tarn::findPhantomRecords(live, 256), ElementsAre(1));
  live[1] = {64, 31, 0, true};  // under the key of another
  EXPECT_EQ(tarn::findPhantomRecords(live, 256).size(), 1u);
}

}  // namespace
}  // namespace tarn_test
