#include "recorder/CheckRig.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardRepair.h"
#include "support/IoFaults.h"

namespace {

using namespace tarn_test;
using tarn::CardRepair;
using testing::HasSubstr;

constexpr char kUndo[] = "/tmp/undo";

// A card with recordings, whose parts that lead to them are damaged.
class CardRepairTest : public CheckRig {
 protected:
  void SetUp() override {
    CheckRig::SetUp();
    before_ = head();
    ASSERT_TRUE(fits());
    unlink(kUndo);
  }

  static bool fits() {
    return tarn::CardGeometry::verify(kCardPath, tarn::GeometryDepth::kWhole).ok();
  }
  uint64_t dataByte() const {
    return (uint64_t{reserved()} + 2ull * tarn::getLe32(before_.data() + 36)) * 512;
  }
  uint32_t reserved() const { return tarn::getLe16(before_.data() + 14); }
  // Everything in front of the chunks, and the info file.
  Bytes head() const { return read(0, static_cast<size_t>(infoByte()) + 64 * kKiB); }
  uint64_t infoByte() const { return chunkByte(tarn::kFileInfo, 0); }
  uint64_t entryByte(const std::string& name) const {
    for (uint64_t at = dataByte(); at < dataByte() + 16384; at += 32) {
      if (std::equal(name.begin(), name.end(), before_.begin() + static_cast<long>(at))) return at;
    }
    ADD_FAILURE() << name;
    return 0;
  }
  // Makes it a card of before the seal: neither seal nor copy.
  void unseal() {
    write(infoByte() + 760, Bytes(10, 0));
    write(16 * 512, Bytes(1024, 0));
    before_ = head();
    ASSERT_TRUE(fits());
  }

  std::string mend() {
    CardRepair repair;
    std::string error;
    if (repair.plan(kCardPath, &error) != 0) return "error: " + error;
    std::string texts;
    for (const CardRepair::Step& step : repair.steps()) texts += step.text + "\n";
    unlink(kUndo);
    EXPECT_EQ(repair.apply(kUndo, &error), 0) << error;
    return texts;
  }
  // The damage is mended, byte for byte, and comes back.
  void expectMended(const std::string& text) {
    const Bytes damaged = head();
    EXPECT_FALSE(damaged == before_);
    EXPECT_EQ(mend(), text);
    EXPECT_TRUE(head() == before_);
    std::string error;
    EXPECT_EQ(CardRepair::undo(kCardPath, kUndo, &error), 0) << error;
    EXPECT_TRUE(head() == damaged);
    write(0, before_);
  }

  Bytes before_;
};

TEST_F(CardRepairTest, AWholeCardNeedsNothing) { EXPECT_EQ(mend(), ""); }

TEST_F(CardRepairTest, TheInfoFileComesFromItsCopy) {
  flip(infoByte() + 4 + 7 * 84 + 64);
  expectMended("the info file TAIF0000 is restored from its second copy\n");
  write(infoByte(), Bytes(4096, 0));
  // Of the padding nothing is known, and nothing is needed.
  expectMended("the info file TAIF0000 is restored from its second copy\n");
}

TEST_F(CardRepairTest, WithoutACopyTheInfoFileIsMadeFromDirectoryAndFats) {
  unseal();
  write(infoByte(), Bytes(760, 0));
  EXPECT_EQ(mend(),
            "the info file TAIF0000 is made anew from the root directory and the FATs\n"
            "the info file's second copy is made the same as the first\n");
  const Bytes now = head();
  EXPECT_TRUE(fits());
  EXPECT_TRUE(std::equal(now.begin() + static_cast<long>(infoByte()),
                         now.begin() + static_cast<long>(infoByte()) + 760,
                         before_.begin() + static_cast<long>(infoByte())));
  EXPECT_EQ(findings().total(), 0u) << texts();
}

TEST_F(CardRepairTest, EveryFieldOfAnOldInfoFileIsMended) {
  unseal();
  for (int type = 1; type < 9; ++type) {
    for (const uint64_t field : {64, 72, 80}) {
      for (const uint8_t bit : {0x01, 0x10, 0x80}) {
        const uint64_t at = infoByte() + 4 + static_cast<uint64_t>(type) * 84 + field;
        const Bytes byte = read(at, 1);
        write(at, {static_cast<uint8_t>(byte[0] ^ bit)});
        EXPECT_FALSE(fits()) << at;
        EXPECT_THAT(mend(), HasSubstr("made anew")) << type << " " << field;
        EXPECT_EQ(read(at, 1), byte);
        write(0, before_);
      }
    }
  }
}

TEST_F(CardRepairTest, TheBootSectorComesFromItsBackupAndBack) {
  for (const uint64_t at : {13, 14, 16, 22, 36, 44}) {
    flip(at);
    EXPECT_FALSE(fits()) << at;
    expectMended("the boot sector is restored from its backup\n");
  }
  write(0, Bytes(512, 0));
  expectMended("the boot sector is restored from its backup\n");
  write(510, {0, 0});
  expectMended("the boot sector is restored from its backup\n");
  write(6 * 512, Bytes(512, 0));
  expectMended("the backup of the boot sector is made the same as the boot sector\n");
}

TEST_F(CardRepairTest, AFatComesFromItsTwin) {
  write(reserved() * 512, Bytes(512, 0));
  expectMended("FAT 1 gets 1 sector from its twin\n");
  const uint64_t second = (reserved() + uint64_t{tarn::getLe32(before_.data() + 36)}) * 512;
  write(second + 512, Bytes(5 * 512, 0xA5));
  EXPECT_TRUE(fits());
  expectMended("FAT 2 gets 5 sectors from its twin\n");
}

TEST_F(CardRepairTest, ADirectoryEntryBecomesAsTheInfoFileHasIt) {
  for (const char* name : {"CKST0001", "TAIF0000", "MGST0000"}) {
    flip(entryByte(name) + 3);
    EXPECT_FALSE(fits());
    expectMended("the directory entry of " + std::string(name) +
                 " is set to what the info file says\n");
    flip(entryByte(name) + 26);
    EXPECT_FALSE(fits());
    expectMended("the directory entry of " + std::string(name) +
                 " is set to what the info file says\n");
  }
  flip(entryByte("CKPC0002") + 29);
  expectMended("the directory entry of CKPC0002 is set to what the info file says\n");
  unseal();
  flip(entryByte("CKPC0002") + 26);
  expectMended("the directory entry of CKPC0002 is set to what the info file says\n");
}

TEST_F(CardRepairTest, AWholeSectorOfTheDirectoryIsMadeAnewFromTheInfoFile) {
  Bytes noise(512);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<uint8_t>(i * 73 + 29);
  const uint64_t used = entryByte("README  TXT") / 512 * 512 + 512;
  ASSERT_GT(used - dataByte(), 512u);
  for (uint64_t sector = dataByte(); sector < used; sector += 512) {
    for (const Bytes& damage : {Bytes(512, 0), Bytes(512, 0xFF), noise}) {
      write(sector, damage);
      ASSERT_FALSE(fits());
      expectMended("the root directory gets 1 sector of entries anew, from the info file\n");
    }
  }
  // Also without a second copy of the info file, when its own entry is there.
  unseal();
  write(dataByte() + 512, noise);
  EXPECT_THAT(mend(), HasSubstr("1 sector of entries anew"));
  EXPECT_TRUE(fits());
  EXPECT_EQ(findings().total(), 0u) << texts();
}

// What a PC leaves that had the card mounted: its marks, a folder, and a file that it had not got
// to write into both FATs.
class CardThatAPcHad : public CardRepairTest {
 protected:
  void SetUp() override {
    CardRepairTest::SetUp();
    write(65, Bytes{1});
    write(fatByte() + 7, Bytes{0x07});
    firstFree_ = info_.clusters() + 1;
    while (entryOf(firstFree_) == 0) --firstFree_;
    ++firstFree_;
    write(fatByte() + firstFree_ * 4, Bytes{0xFF, 0xFF, 0xFF, 0x0F});
    end_ = dataByte();
    while (before_[static_cast<size_t>(end_)] != 0) end_ += 32;
    Bytes folder(32, 0);
    memcpy(folder.data(), "SYSTEM~1   ", 11);
    folder[11] = 0x16;
    write(end_, folder);
    before_ = head();
  }

  uint64_t fatByte() const { return uint64_t{reserved()} * 512; }
  uint32_t entryOf(uint64_t cluster) const {
    return tarn::getLe32(before_.data() + fatByte() + cluster * 4);
  }

  uint64_t firstFree_ = 0;  // cluster
  uint64_t end_ = 0;        // of our entries of the directory
};

TEST_F(CardThatAPcHad, NeedsNothing) {
  const Bytes whole = wholeCard();
  EXPECT_EQ(mend(), "");
  EXPECT_TRUE(wholeCard() == whole);
}

TEST_F(CardThatAPcHad, KeepsThePcsMarkWhereItsBootSectorIsMended) {
  flip(13);
  expectMended("the boot sector is restored from its backup\n");
  const Bytes backup = read(6 * 512, 512);
  write(6 * 512, Bytes(512, 0));
  EXPECT_EQ(mend(), "the backup of the boot sector is made the same as the boot sector\n");
  EXPECT_TRUE(read(6 * 512, 512) == backup);
}

TEST_F(CardThatAPcHad, KeepsThePcsFolderBesideAnEntryOfOursThatIsMadeAnew) {
  ASSERT_NE(end_ % 512, 0u);
  // The readme is the last one.
  const uint64_t last = entryByte("README  TXT") - 32;
  write(last, Bytes(32, 0xFF));
  ASSERT_FALSE(fits());
  expectMended("the root directory gets 1 sector of entries anew, from the info file\n");
}

TEST_F(CardThatAPcHad, AReadmeThatWasDeletedStaysDeleted) {
  const uint64_t entry = entryByte("README  TXT");
  const uint64_t cluster = tarn::getLe16(before_.data() + entry + 26);
  const uint64_t fatBytes = uint64_t{tarn::getLe32(before_.data() + 36)} * 512;
  for (const uint64_t fat : {fatByte(), fatByte() + fatBytes})
    write(fat + cluster * 4, Bytes(12, 0));
  write(entry, Bytes{0xE5});
  EXPECT_EQ(mend(), "");
}

TEST_F(CardThatAPcHad, KeepsThePcsLinksBesideAnEntryOfOursThatIsMended) {
  ASSERT_NE(firstFree_ % 128, 0u) << "both lie in one sector";
  flip(fatByte() + (firstFree_ - 1) * 4 + 1);
  expectMended("FAT 1 gets 1 sector from its twin\n");
}

TEST_F(CardRepairTest, ADirectoryOfWhichMostIsLostIsLeftAlone) {
  uint64_t used = dataByte();
  while (before_[static_cast<size_t>(used)] != 0) used += 512;
  write(dataByte(), Bytes(static_cast<size_t>(used - dataByte()), 0x5A));
  EXPECT_THAT(mend(), HasSubstr("error: "));
  const Bytes kept = head();
  EXPECT_THAT(mend(), HasSubstr("error: "));
  EXPECT_TRUE(head() == kept);
}

TEST_F(CardRepairTest, WhatNothingConfirmsIsLeftAlone) {
  unseal();
  write(infoByte(), Bytes(760, 0));
  flip(entryByte("CKST0001") + 26);
  const Bytes damaged = wholeCard();
  EXPECT_THAT(mend(), HasSubstr("damaged in more places than its second copies can mend"));
  EXPECT_TRUE(wholeCard() == damaged);
}

TEST_F(CardRepairTest, FlushesThatSignalsInterruptAreMadeAgain) {
  flip(infoByte() + 100);
  IoFaults card(kCardPath);
  IoFaults undo(kUndo);
  for (IoFaults* each : {&card, &undo}) each->fail(Call::Fsync, 1, EINTR, 2);
  EXPECT_THAT(mend(), HasSubstr("info file"));
  EXPECT_TRUE(head() == before_);
  EXPECT_GE(card.count(Call::Fsync), 3u);
  EXPECT_EQ(undo.count(Call::Fsync), 3u);
}

TEST_F(CardRepairTest, AnUndoFileIsUsedOnTheCardThatItCameFromAndOnlyWhole) {
  flip(infoByte() + 100);
  mend();
  std::string error;
  flip(infoByte() + 101);
  EXPECT_EQ(CardRepair::undo(kCardPath, kUndo, &error), -1);
  EXPECT_THAT(error, HasSubstr("was changed since"));
  flip(infoByte() + 101);
  ASSERT_EQ(truncate(kUndo, 900), 0);
  EXPECT_EQ(CardRepair::undo(kCardPath, kUndo, &error), -1);
  EXPECT_THAT(error, HasSubstr("not a whole undo file"));
  EXPECT_EQ(CardRepair::undo(kCardPath, "/tmp/none", &error), -1);
  CardRepair repair;
  flip(infoByte() + 100);
  ASSERT_EQ(repair.plan(kCardPath, &error), 0);
  EXPECT_EQ(repair.apply(kUndo, &error), -1);  // never over another one
}

}  // namespace
