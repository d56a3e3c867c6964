// Management files whose one copy the card lost as zeros.
#include "recorder/CheckRig.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/Recovery.h"

namespace {

using namespace tarn_test;

class ManageFileRepairTest : public CheckRig {
 protected:
  void SetUp() override {
    CheckRig::SetUp();
    ASSERT_EQ(tarn::Recovery().run().error, "");
  }

  // Zeros have the checksum of zeros, and must cost nothing all the same.
  void loseAsZeros(int manageType, uint32_t copy) {
    SCOPED_TRACE(std::to_string(manageType) + " copy " + std::to_string(copy));
    constexpr size_t kSector = 512;
    const uint64_t place = chunkByte(manageType, copy);
    const Bytes before = read(place, kSector);
    ASSERT_NE(before, Bytes(kSector, 0));
    write(place, Bytes(kSector, 0));
    unlink("/tmp/DB.dat");
    ASSERT_EQ(tarn::Recovery().run().error, "");
    EXPECT_EQ(read(place, kSector), before);
  }
};

TEST_F(ManageFileRepairTest, ACopyThatTheCardLostAsZerosIsNeverTakenForTheGoodOne) {
  for (const int type :
       {tarn::kFileStreamManage, tarn::kFileSyslogManage, tarn::kFileJournalManage}) {
    for (const uint32_t copy : {0u, 1u}) loseAsZeros(type, copy);
  }
}

}  // namespace
