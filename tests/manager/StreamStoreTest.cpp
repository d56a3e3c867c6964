#include "manager/StoreTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kManage = tarn::kFileStreamManage;
constexpr uint32_t kStreamSize = 128 * kKiB;
constexpr uint32_t kPictureSize = 64 * kKiB;

// Two chunks with every field of their records told apart.
std::vector<uint8_t> twoRecords() {
  std::vector<uint8_t> bytes = joined({recordBytes(3, 7, 0x100, 0x200, 0x30, 0x40),
                                       recordBytes(-1, -2, 0x1000, 0x800, 0x500, 0x500)});
  bytes[0] = 0xA1;  // reserved bytes are carried
  bytes[29] = 0xA2;
  return bytes;
}

class StreamStoreTest : public testing::Test {
 protected:
  StreamStoreTest() : card(smallCard(2)) {
    card.writeManagement(kManage, 0, twoRecords());
    card.writeManagement(kManage, 1, twoRecords());
  }

  void open() { ASSERT_EQ(store.openManageData(kPartition), 0); }

  // Descriptors of the card that the library holds.
  size_t opened() const { return descriptorsOn(kCardPath) - ownDescriptors_; }

  std::vector<uint8_t> mainFile() { return card.readChunk(kManage, 0, 0, 50); }
  std::vector<uint8_t> backupFile() { return card.readChunk(kManage, 1, 0, 50); }

  CardImage card;
  SyslogCapture log;
  StreamStore store;
  const size_t ownDescriptors_ = descriptorsOn(kCardPath);
};

// ---- opening ----

TEST_F(StreamStoreTest, OpenReadsGeometryAndRecords) {
  open();
  EXPECT_EQ(store.numChunk(), 2);
  EXPECT_EQ(store.getChunkSize(0), kPictureSize);
  EXPECT_EQ(store.getChunkSize(1), kStreamSize);
  EXPECT_EQ(opened(), 2u);  // main and backup copy, not the chunk file
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_INFO, " We have 2 Stream chunk."}));
  CHUNK_MANAGE record;
  ASSERT_EQ(store.getManageData(0, &record), 0);
  EXPECT_EQ(record.reserved[0], 0xA1);
  EXPECT_EQ(record.chType, 3);
  EXPECT_EQ(record.recType, 7);
  EXPECT_EQ(record.streamUseOffset, 0x100u);
  EXPECT_EQ(record.streamFreeOffset, 0x200u);
  EXPECT_EQ(record.pictureUseOffset, 0x30u);
  EXPECT_EQ(record.pictureFreeOffset, 0x40u);
}

TEST_F(StreamStoreTest, PartitionIsRememberedButTheRecordersCardIsOpened) {
  ASSERT_EQ(store.openManageData(1), 0);  // there is no /dev/mmcblk0p1 here
  EXPECT_EQ(store.m_partition, 1);
  EXPECT_EQ(store.numChunk(), 2);
}

TEST_F(StreamStoreTest, UsageHasThePicturePairFirst) {
  open();
  CHUNK_USAGE usage{};
  ASSERT_EQ(store.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.useAddr, 0x30u);
  EXPECT_EQ(usage.freeAddr, 0x40u);
  EXPECT_EQ(usage.streamUseAddr, 0x100u);
  EXPECT_EQ(usage.streamFreeAddr, 0x200u);
}

TEST_F(StreamStoreTest, WrongCrcIsMinusTwoAndClosesBothWithoutTheBackup) {
  card.writeChunk(kManage, 0, 49, {0x5A});
  IoFaults io(kCardPath);
  EXPECT_EQ(store.openManageData(kPartition), -2);
  EXPECT_EQ(store.m_mainHandle, -1);
  EXPECT_EQ(store.m_backupHandle, -1);
  EXPECT_EQ(opened(), 0u);
  EXPECT_THAT(log.atPriority(LOG_ERR),
              ElementsAre(LogLine{LOG_ERR, " openManageData() CRC error (ST) "}));
  const auto backup = static_cast<int64_t>(card.chunkStart(kManage, 1));
  for (const IoRecord& call : io.calls()) {
    EXPECT_FALSE(call.call == Call::Read && call.offset == backup);
  }
}

TEST_F(StreamStoreTest, WithoutACardTheMainFileIsReported) {
  ASSERT_EQ(unlink(kCardPath), 0);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "getChunkInfo open error"));
  EXPECT_TRUE(log.has(LOG_ERR, " /dev/sdblk0p1:MGST0000 open error"));
  EXPECT_EQ(store.numChunk(), 0);
}

// The n-th open of the device fails: 1 chunk file, 2 main copy, 3 backup copy.
TEST_F(StreamStoreTest, BackupFileThatDoesNotOpenClosesTheMainFile) {
  IoFaults io(kCardPath);
  io.fail(Call::Open, 3, EIO);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " /dev/sdblk0p1:MGST0001 open error"));
  EXPECT_EQ(opened(), 0u);
  EXPECT_EQ(store.m_mainHandle, -1);
  EXPECT_EQ(store.closeManageData(), -1);  // nothing left to close
}

TEST_F(StreamStoreTest, MainFileThatDoesNotOpenLeavesNothingOpen) {
  IoFaults io(kCardPath);
  io.fail(Call::Open, 2, EIO);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " /dev/sdblk0p1:MGST0000 open error"));
  EXPECT_FALSE(log.has(LOG_ERR, " /dev/sdblk0p1:MGST0001 open error"));
  EXPECT_EQ(opened(), 0u);
}

TEST_F(StreamStoreTest, ChunkFileThatDoesNotOpenIsNotTheEndOfIt) {
  IoFaults io(kCardPath);
  io.fail(Call::Open, 1, EIO);
  card.writeChunk(kManage, 0, 0, {0, 0});  // the CRC of no records
  EXPECT_EQ(store.openManageData(kPartition), 0);
  EXPECT_TRUE(log.has(LOG_ERR, "getChunkInfo open error"));
  EXPECT_EQ(store.numChunk(), 0);
  CHUNK_USAGE usage{};
  EXPECT_EQ(store.getUsage(0, &usage), -1);
}

// Fails each large allocation of an open in turn, the volume's and the buffers' as well.
TEST_F(StreamStoreTest, NoMemoryForTheRecordsClosesBothFiles) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "a sanitizer owns the allocator";
  CardLayout layout = smallCard(2);
  layout.families[tarn::kFileStream] = {4096, 2000, 0};  // records of 48002 bytes
  layout.families[tarn::kFilePicture] = {64, 2000, 0};
  CardImage large(layout);
  large.initManagement();
  open();  // what the tests' own stand-ins allocate once is there from here on
  store.closeManageData();
  const size_t before = opened();
  int reported = 0;
  int result = -1;
  for (int n = 1; n < 20; ++n) {
    StreamStore fresh;
    log.clear();
    {
      AllocationFault fault(40000, n);
      result = fresh.openManageData(kPartition);
    }
    if (!log.has(LOG_ERR, " can't alloc memory for CHUNK_MANAGE")) continue;
    ++reported;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.atPriority(LOG_ERR).size(), 1u);
    EXPECT_EQ(opened(), before);
    CHUNK_USAGE usage{};
    EXPECT_EQ(fresh.getUsage(0, &usage), -1);
    EXPECT_EQ(fresh.numUsedChunk(), 0);
    EXPECT_EQ(fresh.freeSizeTotal(), 0);
    EXPECT_EQ(fresh.firstAvailableChunk(0, 0, 0), -1);
  }
  EXPECT_EQ(result, 0);  // the last one had nothing left to fail
  EXPECT_EQ(reported, 1);
}

// Which seek of the device is the store's own is told by where it comes: after the third open.
size_t seeksBeforeLoad() {
  StreamStore probe;
  IoFaults io(kCardPath);
  EXPECT_EQ(probe.openManageData(kPartition), 0);
  return io.count(Call::Lseek);
}

TEST_F(StreamStoreTest, SeekFailureClosesBothFiles) {
  const size_t seeks = seeksBeforeLoad();
  log.clear();
  IoFaults io(kCardPath);
  io.fail(Call::Lseek, static_cast<int>(seeks), EIO);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "lseek error "));
  EXPECT_EQ(opened(), 0u);
}

TEST_F(StreamStoreTest, ShortReadClosesBothFiles) {
  IoFaults count(kCardPath);
  {
    StreamStore probe;
    ASSERT_EQ(probe.openManageData(kPartition), 0);
  }
  log.clear();
  IoFaults io(kCardPath);
  io.shorten(Call::Read, static_cast<int>(count.count(Call::Read)), 49);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_THAT(log.atPriority(LOG_ERR), ElementsAre(LogLine{LOG_ERR, "read error "}));
  EXPECT_EQ(opened(), 0u);
}

TEST_F(StreamStoreTest, OpeningAnOpenStoreClosesItFirst) {
  open();
  open();
  EXPECT_EQ(opened(), 2u);
  EXPECT_EQ(store.numChunk(), 2);
}

// ---- closing ----

TEST_F(StreamStoreTest, RecordsAreKeptOverCloseAndReopen) {
  open();
  const uint8_t* const kept = store.m_records;
  EXPECT_EQ(store.closeManageData(), 0);
  EXPECT_EQ(store.numChunk(), 0);
  EXPECT_EQ(store.m_records, kept);
  EXPECT_EQ(opened(), 0u);
  open();
  EXPECT_EQ(store.m_records, kept);
  EXPECT_EQ(store.closeManageData(), 0);
}

TEST_F(StreamStoreTest, ClosingAClosedStoreFreesTheRecords) {
  open();
  store.closeManageData();
  EXPECT_EQ(store.closeManageData(), -1);
  EXPECT_EQ(store.m_records, nullptr);
}

TEST_F(StreamStoreTest, AnotherChunkCountGetsRecordsOfItsOwnSize) {
  open();
  store.closeManageData();
  CardImage larger(smallCard(40));
  std::vector<uint8_t> records;
  for (int i = 0; i < 40; ++i) records = joined({records, recordBytes(i, 0, 0, 0, 0, 0)});
  larger.writeManagement(kManage, 0, records);
  open();
  CHUNK_MANAGE record;
  ASSERT_EQ(store.getManageData(39, &record), 0);
  EXPECT_EQ(record.chType, 39);
  EXPECT_EQ(store.getManageData(40, &record), -1);
}

TEST_F(StreamStoreTest, AStoreThatWasNeverOpenedClosesNothing) {
  EXPECT_EQ(store.m_mainHandle, -1);
  EXPECT_EQ(store.m_backupHandle, -1);
  EXPECT_EQ(store.closeManageData(), -1);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(StreamStoreTest, DestructionClosesTheFiles) {
  {
    StreamStore shortLived;
    ASSERT_EQ(shortLived.openManageData(kPartition), 0);
  }
  EXPECT_EQ(opened(), 0u);
}

// ---- saving ----

TEST_F(StreamStoreTest, SaveWritesBackupThenMainEachFlushed) {
  open();
  ASSERT_EQ(store.setUsage(1, 0x1234, 1), 0);
  log.clear();
  IoFaults io(kCardPath);
  EXPECT_EQ(store.saveManageData(), 0);
  EXPECT_EQ(io.sequence(), "lwflwf");
  EXPECT_THAT(io.writes(),
              ElementsAre(WriteRecord{static_cast<int64_t>(card.chunkStart(kManage, 1)), 50},
                          WriteRecord{static_cast<int64_t>(card.chunkStart(kManage, 0)), 50}));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_INFO, " saveManageData (ST) "}));
  EXPECT_EQ(mainFile(), backupFile());
  std::vector<uint8_t> expected = twoRecords();
  expected[24 + 8] = 0x34;
  expected[24 + 9] = 0x12;
  const std::vector<uint8_t> saved = mainFile();
  EXPECT_EQ(std::vector<uint8_t>(saved.begin(), saved.end() - 2), expected);
  EXPECT_EQ(card.readChunk(kManage, 0, 50, 4), std::vector<uint8_t>(4, 0xCC));
  StreamStore again;
  EXPECT_EQ(again.openManageData(kPartition), 0);
}

struct SaveFault {
  Call call;
  int n;
  const char* message;  // null: no line of the store's own
};
void PrintTo(const SaveFault& fault, std::ostream* out) {
  *out << (fault.n == 1 ? "backup " : "main ")
       << (fault.call == Call::Lseek   ? "seek"
           : fault.call == Call::Write ? "write"
                                       : "flush");
}

class SaveFaultTest : public StreamStoreTest, public testing::WithParamInterface<SaveFault> {};

TEST_P(SaveFaultTest, EveryStepIsTriedAfterAFailedOne) {
  open();
  log.clear();
  IoFaults io(kCardPath);
  io.fail(GetParam().call, GetParam().n, EIO);
  EXPECT_EQ(store.saveManageData(), -1);
  EXPECT_EQ(io.sequence(), "lwflwf");
  std::vector<std::string> own;
  for (const LogLine& line : log.atPriority(LOG_ERR)) {
    if (line.text.rfind(" saveManageData", 0) == 0) own.push_back(line.text);
  }
  if (GetParam().message == nullptr) {
    EXPECT_THAT(own, IsEmpty());
  } else {
    EXPECT_THAT(own, ElementsAre(GetParam().message));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Save, SaveFaultTest,
    testing::Values(SaveFault{Call::Lseek, 1, " saveManageData: backup lseek error "},
                    SaveFault{Call::Write, 1, " saveManageData: backup write error "},
                    SaveFault{Call::Fsync, 1, nullptr},
                    SaveFault{Call::Lseek, 2, " saveManageData: lseek error "},
                    SaveFault{Call::Write, 2, " saveManageData: write error "},
                    SaveFault{Call::Fsync, 2, nullptr}));

TEST_F(StreamStoreTest, ShortWriteFailsTheSave) {
  open();
  IoFaults io(kCardPath);
  io.shorten(Call::Write, 2, 49);
  EXPECT_EQ(store.saveManageData(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " saveManageData: write error "));
  EXPECT_FALSE(log.has(LOG_ERR, " saveManageData: backup write error "));
}

// Power lost at any write of a save leaves at least one whole copy.
TEST_F(StreamStoreTest, ATornSaveLeavesOneWholeCopy) {
  for (int n : {1, 2}) {
    open();
    ASSERT_EQ(store.setUsage(0, 0x2000u + static_cast<unsigned>(n), 1), 0);
    {
      IoFaults io(kCardPath);
      io.shorten(Call::Write, n, 13);
      io.fail(Call::Write, n + 1, EIO, IoFaults::kForever);
      EXPECT_EQ(store.saveManageData(), -1);
    }
    store.closeManageData();
    StreamStore after;
    const int opened = after.openManageData(kPartition);
    if (n == 1) {
      EXPECT_EQ(opened, 0);  // the old main copy
    } else {
      EXPECT_EQ(opened, -2);
      const std::vector<uint8_t> backup = backupFile();
      card.writeChunk(kManage, 0, 0, backup);
      EXPECT_EQ(after.openManageData(kPartition), 0);  // the new backup copy
      CHUNK_USAGE usage{};
      ASSERT_EQ(after.getUsage(0, &usage), 0);
      EXPECT_EQ(usage.streamUseAddr, 0x2002u);
    }
  }
}

TEST_F(StreamStoreTest, SavingAClosedStoreLogsItsFailuresAndTouchesNothing) {
  open();
  store.closeManageData();
  const std::vector<uint8_t> kept(store.m_records, store.m_records + 50);
  const auto before = card.read(0, card.size());
  log.clear();
  EXPECT_EQ(store.saveManageData(), -1);
  for (const char* text :
       {" saveManageData: backup lseek error ", " saveManageData: backup write error ",
        " saveManageData: lseek error ", " saveManageData: write error "}) {
    EXPECT_EQ(log.count(LOG_ERR, text), 1u) << text;
  }
  EXPECT_EQ(std::vector<uint8_t>(store.m_records, store.m_records + 50), kept);
  EXPECT_EQ(card.read(0, card.size()), before);
}

TEST_F(StreamStoreTest, SavingAStoreThatWasNeverOpenedFails) {
  EXPECT_EQ(store.saveManageData(), -1);
  EXPECT_TRUE(log.has(LOG_INFO, " saveManageData (ST) "));
  EXPECT_TRUE(log.has(LOG_ERR, " saveManageData: write error "));
}

// ---- records ----

TEST_F(StreamStoreTest, AnOffsetAtTheAreasEndIsStoredAsZero) {
  open();
  EXPECT_EQ(store.setUsage(0, kStreamSize, 1), 0);
  EXPECT_EQ(store.setFree(0, kStreamSize + 5, 1), 0);
  EXPECT_EQ(store.setUsage(0, kPictureSize, 0), 0);
  EXPECT_EQ(store.setFree(0, 0xFFFFFFFFul, 0), 0);
  CHUNK_MANAGE record;
  ASSERT_EQ(store.getManageData(0, &record), 0);
  EXPECT_EQ(record.streamUseOffset, 0u);
  EXPECT_EQ(record.streamFreeOffset, 0u);
  EXPECT_EQ(record.pictureUseOffset, 0u);
  EXPECT_EQ(record.pictureFreeOffset, 0u);
}

TEST_F(StreamStoreTest, AnOffsetBelowTheAreasEndIsStoredAsGiven) {
  open();
  EXPECT_EQ(store.setUsage(0, kStreamSize - 1, 1), 0);
  EXPECT_EQ(store.setFree(0, kStreamSize - 2, 200), 0);  // any non-zero selector is the stream
  EXPECT_EQ(store.setUsage(0, kPictureSize - 3, 0), 0);
  EXPECT_EQ(store.setFree(0, kPictureSize - 4, 0), 0);
  CHUNK_USAGE usage{};
  ASSERT_EQ(store.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.streamUseAddr, kStreamSize - 1);
  EXPECT_EQ(usage.streamFreeAddr, kStreamSize - 2);
  EXPECT_EQ(usage.useAddr, kPictureSize - 3);
  EXPECT_EQ(usage.freeAddr, kPictureSize - 4);
}

TEST_F(StreamStoreTest, OffsetsAreCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "an unsigned long has 32 bits here";
  open();
  EXPECT_EQ(store.setUsage(0, static_cast<unsigned long>(0x100000010ull), 1), 0);
  CHUNK_USAGE usage{};
  ASSERT_EQ(store.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.streamUseAddr, 0x10u);
}

TEST_F(StreamStoreTest, AChunkOutOfRangeIsRefusedWhereItIsChecked) {
  open();
  for (short chunk : {short{-1}, short{2}, short{32767}, short{-32768}}) {
    CHUNK_USAGE usage{1, 2, 3, 4};
    CHUNK_MANAGE record{};
    record.chType = 55;
    EXPECT_EQ(store.getUsage(chunk, &usage), -1);
    EXPECT_EQ(usage.useAddr, 1u);
    EXPECT_EQ(store.getManageData(chunk, &record), -1);
    EXPECT_EQ(record.chType, 55);
    EXPECT_EQ(store.setUsage(chunk, 1, 1), -1);
    EXPECT_EQ(store.setFree(chunk, 1, 0), -1);
  }
}

TEST_F(StreamStoreTest, AChunkOutOfRangeReadsZeroAndWritesNothingElsewhere) {
  open();
  for (short chunk : {short{-1}, short{2}, short{-32768}}) {
    EXPECT_EQ(store.freeSize(chunk), 0u);
    EXPECT_EQ(store.freeSizePicture(chunk), 0u);
    EXPECT_EQ(store.setChType(chunk, 1, 1), 0);
  }
  EXPECT_EQ(std::vector<uint8_t>(store.m_records, store.m_records + 48), twoRecords());
}

TEST_F(StreamStoreTest, ChannelAndRecordTypesAreSet) {
  open();
  EXPECT_EQ(store.setChType(1, 5, -6), 0);
  EXPECT_EQ(store.setRecTypeAll(9), 0);
  CHUNK_MANAGE record;
  ASSERT_EQ(store.getManageData(1, &record), 0);
  EXPECT_EQ(record.chType, 5);
  EXPECT_EQ(record.recType, 9);
  ASSERT_EQ(store.getManageData(0, &record), 0);
  EXPECT_EQ(record.chType, 3);
  EXPECT_EQ(record.recType, 9);
}

TEST_F(StreamStoreTest, FreeSpaceIsThatOfARing) {
  open();
  EXPECT_EQ(store.freeSize(0), kStreamSize - 0x200 + 0x100);
  EXPECT_EQ(store.freeSize(1), 0x1000u - 0x800u);
  EXPECT_EQ(store.freeSizePicture(0), kPictureSize - 0x40 + 0x30);
  EXPECT_EQ(store.freeSizePicture(1), kPictureSize);  // equal offsets: empty
  EXPECT_EQ(store.freeSizeTotal(), static_cast<long long>(kStreamSize - 0x100 + 0x800));
}

TEST_F(StreamStoreTest, EqualOffsetsCountAsEmptyAlsoWhenTheAreaIsFull) {
  open();
  ASSERT_EQ(store.setUsage(0, 77, 1), 0);
  ASSERT_EQ(store.setFree(0, 77, 1), 0);
  EXPECT_EQ(store.freeSize(0), kStreamSize);
}

TEST_F(StreamStoreTest, FreeTotalExceeds32Bits) {
  CardLayout layout = smallCard(3);
  layout.fillUndefined = false;
  layout.families[tarn::kFileStream] = {0x7FFF0000u, 3, 0};
  CardImage large(layout);
  large.initManagement();
  open();
  EXPECT_EQ(store.freeSizeTotal(), 3ll * 0x7FFF0000);
}

TEST_F(StreamStoreTest, UsedChunksAreThoseWithAChannel) {
  open();
  EXPECT_EQ(store.numUsedChunk(), 1);
  store.setChType(1, 0, 0);
  EXPECT_EQ(store.numUsedChunk(), 2);
  store.setChType(0, -1, 0);
  store.setChType(1, -1, 0);
  EXPECT_EQ(store.numUsedChunk(), 0);
}

TEST_F(StreamStoreTest, CrcIsPrinted) {
  const auto* text = reinterpret_cast<const unsigned char*>("123456789");
  unsigned short crc = 0;
  EXPECT_EQ(printedBy([&] { crc = store.getCRC(text, 9); }), "CRC = 0x31c3");
  EXPECT_EQ(crc, 0x31C3);
  EXPECT_EQ(printedBy([&] { crc = store.getCRC(text, 0); }), "CRC = 0x0");
  EXPECT_EQ(crc, 0);
}

}  // namespace
}  // namespace tarn_test
