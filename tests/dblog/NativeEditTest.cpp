#include "dblog/CDbRestore.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

class NativeEdit : public CardTest {
 protected:
  NativeEdit() {
    event = eventRow(1);
    event.backOffset = 32;
    stream = streamRow(1);
    stream.backOffset = 64;
    setPair(0, 32, eventRecord(event));
    setPair(2, 64, streamRecord(stream));
  }
  // Everything of the journals but what lies at the two records.
  void expectNothingElseChanged() {
    for (int chunk = 0; chunk < 4; ++chunk) {
      const uint32_t at = chunk < 2 ? 32 : 64;
      const uint32_t size = chunk < 2 ? 32 : 64;
      EXPECT_EQ(journal(chunk, 0, at), Bytes(at, 0xFF)) << chunk;
      const uint32_t rest = kJournalSize - at - size;
      EXPECT_EQ(journal(chunk, at + size, rest), Bytes(rest, 0xFF)) << chunk;
    }
  }

  DB_EVENT event;
  DB_STREAM stream;
  CDbRestore restore;
};

TEST_F(NativeEdit, AnEventIsReplacedWholeButItsMarkerIsKept) {
  DB_EVENT other = eventRow(70);
  other.backOffset = 32;
  EXPECT_EQ(restore.updateEventDBLogNative(&other), 0);
  expectPair(0, 32, eventRecord(other));
  setPair(0, 32, eventRecord(other, 0xFFFFFFEF));
  EXPECT_EQ(restore.updateEventDBLogNative(&event), 0);
  expectPair(0, 32, eventRecord(event, 0xFFFFFFEF));
  expectNothingElseChanged();
}

TEST_F(NativeEdit, FourFieldsOfAStreamAreSet) {
  EXPECT_EQ(restore.updateStreamDBLogNative(2, 11, 12, 13, 14, 64), 0);
  stream.status = 11;
  stream.recSize = 12;
  stream.chunkSize = 13;
  stream.endDate = 14;
  expectPair(2, 64, streamRecord(stream));
  expectNothingElseChanged();
}

TEST_F(NativeEdit, ARecordIsMarkedDeleted) {
  EXPECT_EQ(restore.deleteDBLogNative(0, 32), 0);
  EXPECT_EQ(restore.deleteDBLogNative(2, 64), 0);
  expectPair(0, 32, eventRecord(event, 0xFFFFFFEF));
  expectPair(2, 64, streamRecord(stream, 0xFFFFFFEE));
  expectNothingElseChanged();
}

TEST_F(NativeEdit, OtherChunksAreOpenedAndLeftAlone) {
  const IoFaults faults(kCardPath);
  EXPECT_EQ(restore.deleteDBLogNative(1, 32), 0);
  EXPECT_EQ(restore.deleteDBLogNative(3, 64), 0);
  EXPECT_EQ(faults.count(Call::Open), 4u);
  EXPECT_EQ(faults.count(Call::Close), 4u);
  EXPECT_EQ(faults.count(Call::Write), 0u);
  expectPair(0, 32, eventRecord(event));
  expectPair(2, 64, streamRecord(stream));
  EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(NativeEdit, ARecordIsNotTestedBeforeItIsChanged) {
  setPair(0, 32, Bytes(32, 0x5A));
  EXPECT_EQ(restore.deleteDBLogNative(0, 32), 0);
  Bytes bytes(28, 0x5A);
  bytes[0] = 0xEF;
  bytes[1] = bytes[2] = bytes[3] = 0xFF;
  expectPair(0, 32, sealed(bytes));
}

TEST_F(NativeEdit, TheOriginalIsOnTheCardBeforeTheMirrorIsTouched) {
  const IoFaults faults(kCardPath);
  EXPECT_EQ(restore.deleteDBLogNative(0, 32), 0);
  std::string changes;
  for (char call : faults.sequence()) {
    if (call == 'w' || call == 'f') changes += call;
  }
  EXPECT_EQ(changes, "wfwf");
}

TEST_F(NativeEdit, ACardThatCannotBeOpenedIsNamed) {
  for (int copy = 0; copy < 2; ++copy) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(Call::Open, copy + 1, EIO);
    EXPECT_EQ(restore.deleteDBLogNative(2, 64), -1);
    EXPECT_TRUE(log.has(
        LOG_ERR, " error : can't open file /dev/sdblk0p1:CKDL000" + std::to_string(2 + copy)))
        << testing::PrintToString(log.lines());
  }
  log.clear();
  IoFaults faults(kCardPath);
  faults.fail(Call::Open, 1, EIO);
  EXPECT_EQ(restore.updateEventDBLogNative(&event), 0) << "the result does not tell";
  EXPECT_TRUE(log.has(LOG_ERR, " error : can't open file /dev/sdblk0p1:CKDL0000"));
}

// What can fail of one copy's edit, and what is said of it. The n-th call of the edit itself: the
// opens make three reads and some seeks before.
TEST_F(NativeEdit, EachFailureHasItsTextAndEndsTheEdit) {
  IoFaults counted(kCardPath);
  EXPECT_EQ(restore.updateStreamDBLogNative(2, stream.status, stream.recSize, stream.chunkSize,
                                            stream.endDate, 64),
            0);
  const int reads = static_cast<int>(counted.count(Call::Read)) / 2;
  const int seeks = static_cast<int>(counted.count(Call::Lseek)) / 2;
  const struct {
    Call call;
    int n;
    const char* text;
  } cases[] = {{Call::Lseek, seeks - 1, " error : can't seek file"},
               {Call::Read, reads, " error : can't read file"},
               {Call::Lseek, seeks, " error : can't seek file"},
               {Call::Write, 1, " error : can't write file"},
               {Call::Fsync, 1, " error : can't write file"}};
  for (const auto& one : cases) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(one.call, one.n, EIO);
    EXPECT_EQ(restore.updateStreamDBLogNative(2, 1, 2, 3, 4, 64), -1) << one.text;
    EXPECT_TRUE(log.has(LOG_ERR, one.text)) << testing::PrintToString(log.lines());
    EXPECT_EQ(faults.count(Call::Open), 1u) << "the mirror is left alone";
    EXPECT_EQ(faults.count(Call::Close), 1u);
  }
  EXPECT_EQ(journal(3, 64, 64), streamRecord(stream));
}

TEST_F(NativeEdit, AShortReadIsAFailedOne) {
  IoFaults counted(kCardPath);
  EXPECT_EQ(restore.updateEventDBLogNative(&event), 0);
  const int reads = static_cast<int>(counted.count(Call::Read)) / 2;
  IoFaults faults(kCardPath);
  faults.shorten(Call::Read, reads, 10);
  EXPECT_EQ(restore.deleteDBLogNative(0, 32), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " error : can't read file"));
  expectPair(0, 32, eventRecord(event));
}

TEST_F(NativeEdit, NothingBehindTheChunkIsEverWritten) {
  const IoFaults faults(kCardPath);
  for (unsigned long offset : {1024ul, 1000ul, 0xFFFFFFFFul, 0xFFFFFFE0ul}) {
    log.clear();
    EXPECT_EQ(restore.deleteDBLogNative(0, offset), -1) << offset;
    EXPECT_EQ(restore.updateStreamDBLogNative(2, 1, 2, 3, 4, offset), -1) << offset;
    EXPECT_EQ(log.count(LOG_ERR, " error : can't seek file"), 2u) << offset;
  }
  EXPECT_EQ(restore.updateStreamDBLogNative(4, 1, 2, 3, 4, 64), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " error : can't open file /dev/sdblk0p1:CKDL0004"));
  EXPECT_EQ(faults.count(Call::Write), 0u);
  EXPECT_EQ(restore.deleteDBLogNative(0, static_cast<unsigned long>(0x100000020)), 0)
      << "offsets have 32 bits";
}

}  // namespace
}  // namespace tarn_test
