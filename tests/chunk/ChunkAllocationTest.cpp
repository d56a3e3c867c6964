// Reading and writing allocate nothing, in no thread: what a recorder needs it has once its chunks
// are open.
#include "chunk/CTARNMirroredChunk.h"
#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::IsEmpty;

CardLayout sparseCard() {
  CardLayout layout;
  layout.fillUndefined = false;
  return layout;
}

// As ManagedCard, but for the record of the system calls, which would allocate.
struct UnwatchedCard {
  UnwatchedCard() : card(sparseCard()) {
    card.initManagement();
    server = std::make_unique<ServerThread>();
    EXPECT_EQ(journal.openManageData(), 0);
    EXPECT_EQ(syslog.openManageData(), 0);
    EXPECT_EQ(stream.openManageData(), 0);
  }
  ~UnwatchedCard() {
    stream.closeManageData();
    syslog.closeManageData();
    journal.closeManageData();
  }
  // Once the chunks are open, reading and writing ask it for nothing. It has threads that may start
  // late, and a sanitizer allocates as a thread starts.
  void stopServer() {
    server.reset();
    log.clear();
  }

  CardImage card;
  SyslogCapture log;
  std::unique_ptr<ServerThread> server;
  CTARNEndlessManager journal{tarn::kRecorderPartition, kJournal};
  CTARNSyslogManager syslog{tarn::kRecorderPartition};
  CTARNStreamManager stream{tarn::kRecorderPartition};
};

struct Work {
  size_t calls = 0, wraps = 0;
  size_t allocations = 0;
  bool good = true;
};

// Appends pieces until the ring has wrapped so many times, each in the room of the oldest, and
// waits until the write thread is done with them.
Work append(CTARNChunkBase& chunk, long piece, size_t wraps) {
  Bytes data = patternBytes(static_cast<size_t>(piece));
  Work work;
  // The write thread has started when it has done some work.
  work.good = chunk.write(data.data(), 1) == 1 && chunk.flush() == 0;
  AllocationCount allocations(AllocationCount::Of::AllThreads);
  while (work.good && work.wraps < wraps) {
    const unsigned long before = chunk.getFreeAddr();
    chunk.setUseAddr(before);
    work.good = chunk.write(data.data(), piece) == piece;
    work.wraps += chunk.getFreeAddr() < before;
    ++work.calls;
  }
  work.good = work.good && chunk.flush() == 0;
  work.allocations = allocations.count();
  return work;
}

template <typename Chunk, typename Manager>
void appendingAllocatesNothing(UnwatchedCard& c, Manager* manager, Chunk& chunk,
                               const std::vector<long>& pieces) {
  ASSERT_EQ(chunk.openChunkFile(manager, 1), 0);
  c.stopServer();
  for (const long piece : pieces) {
    SCOPED_TRACE(piece);
    const Work work = append(chunk, piece, 3);
    EXPECT_TRUE(work.good);
    EXPECT_GE(work.calls, 2 * chunk.getChunkSize() / static_cast<unsigned long>(piece));
    EXPECT_EQ(work.allocations, 0u);
  }
  EXPECT_THAT(problems(c.log), IsEmpty());
}

TEST(ChunkAllocation, AppendingToAStreamChunkAllocatesNothing) {
  UnwatchedCard c;
  ASSERT_EQ(c.card.family(kStream).chunkSize, 4 * kMiB);  // several times its buffers of 1 MiB
  CTARNStreamChunk chunk(1);
  appendingAllocatesNothing(c, &c.stream, chunk, {20 * kKiB, 999, kMiB});
}

TEST(ChunkAllocation, AppendingToAPictureChunkAllocatesNothing) {
  UnwatchedCard c;
  ASSERT_EQ(c.card.family(kPicture).chunkSize, 256 * kKiB);  // buffers of 32 KiB
  CTARNStreamChunk chunk(0);
  appendingAllocatesNothing(c, &c.stream, chunk, {32, 999, 32 * kKiB});
}

TEST(ChunkAllocation, AppendingToASyslogChunkAllocatesNothing) {
  UnwatchedCard c;
  ASSERT_EQ(c.card.family(kSyslog).chunkSize, 64 * kKiB);  // buffers of 32 KiB
  CTARNSyslogChunk chunk;
  appendingAllocatesNothing(c, &c.syslog, chunk, {100, 32 * kKiB});
}

TEST(ChunkAllocation, AppendingToAnEndlessChunkAllocatesNothing) {
  UnwatchedCard c;
  CTARNEndlessChunk chunk(kJournal);
  appendingAllocatesNothing(c, &c.journal, chunk, {64, 999});
}

TEST(ChunkAllocation, WritingInPlaceAndReadingBackAllocatesNothing) {
  UnwatchedCard c;
  CTARNStreamChunk chunk(1);
  ASSERT_EQ(chunk.openChunkFile(&c.stream, 1), 0);
  c.stopServer();
  const auto size = static_cast<long>(chunk.getChunkSize());
  constexpr long kPiece = 70000;
  Bytes data = patternBytes(kPiece), got(kPiece);
  bool good = chunk.write(data.data(), 1) == 1 && chunk.flush() == 0;
  AllocationCount allocations(AllocationCount::Of::AllThreads);
  for (const long at : {0L, 12345L, size / 2, size - kPiece, size - 1}) {  // the last one wraps
    good =
        good && chunk.seek(at, SEEK_SET) == at && chunk.writeNoSeek(data.data(), kPiece) == kPiece;
    good = good && chunk.seek(at, SEEK_SET) == at && chunk.read(got.data(), kPiece) == kPiece;
    good = good && got == data;
  }
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_TRUE(good);
}

// Reads an event that goes across the ring's end, to its end, several times.
void readingAllocatesNothing(int family, CTARNChunkBase& chunk, const std::vector<long>& pieces) {
  CardImage card(sparseCard());
  SyslogCapture log;
  const uint32_t size = card.family(family).chunkSize;
  const CHUNK_EVENT event = eventOf(1, size - 5000, size - 1);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  for (const long piece : pieces) {
    SCOPED_TRACE(piece);
    Bytes data(static_cast<size_t>(piece));
    size_t bytes = 0;
    long got = 0;
    AllocationCount allocations(AllocationCount::Of::AllThreads);
    for (int turn = 0; turn < 3; ++turn) {
      chunk.seekEvent(0, SEEK_SET);
      while ((got = chunk.read(data.data(), piece)) > 0) bytes += static_cast<size_t>(got);
    }
    EXPECT_EQ(allocations.count(), 0u);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(bytes, 3 * size_t{event.size});
  }
  EXPECT_THAT(problems(log), IsEmpty());
  chunk.closeChunkFile();
}

TEST(ChunkAllocation, ReadingAStreamChunkAllocatesNothing) {
  CTARNStreamChunk chunk(1);
  readingAllocatesNothing(kStream, chunk, {20 * kKiB, 4 * kMiB});
}

TEST(ChunkAllocation, ReadingAPictureChunkAllocatesNothing) {
  CTARNStreamChunk chunk(0);
  readingAllocatesNothing(kPicture, chunk, {32, 999, 20000});
}

TEST(ChunkAllocation, ReadingASyslogChunkAllocatesNothing) {
  CTARNSyslogChunk chunk;
  readingAllocatesNothing(kSyslog, chunk, {999});
}

TEST(ChunkAllocation, ReadingAnEndlessChunkAllocatesNothing) {
  CTARNEndlessChunk chunk(kJournal);
  readingAllocatesNothing(kJournal, chunk, {64, 999});
}

TEST(ChunkAllocation, RecordsOfAMirroredChunkAllocateNothing) {
  UnwatchedCard c;
  CTARNMirroredChunk pair(kJournal);
  ASSERT_EQ(pair.openChunkFile(&c.journal, 0, 1), 0);
  c.stopServer();
  constexpr long kRecord = 64;
  Bytes record = patternBytes(kRecord);
  const long records = static_cast<long>(pair.getChunkSize()) / kRecord;
  bool good = true;
  AllocationCount allocations(AllocationCount::Of::AllThreads);
  for (long i = 0; i < records + 10; ++i)
    good = good && pair.write(record.data(), kRecord, kRecord - 4) == kRecord;
  for (long i = 0; i < 10; ++i) {
    good = good && pair.seek(i * kRecord, SEEK_SET) == i * kRecord;
    good = good && pair.writeNoSeek(record.data(), kRecord, kRecord - 4) == kRecord;
    good = good && pair.seek(i * kRecord, SEEK_SET) == i * kRecord;
    good = good && pair.read(record.data(), kRecord, kRecord - 4) == kRecord;
  }
  EXPECT_EQ(allocations.count(), 0u);
  EXPECT_TRUE(good);
}

}  // namespace
}  // namespace tarn_test
