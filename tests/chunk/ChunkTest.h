#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "chunk/CTARNEndlessChunk.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/CTARNSyslogChunk.h"
#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNStreamManager.h"
#include "manager/CTARNSyslogManager.h"
#include "recorder/server/ManagementServer.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

using Bytes = std::vector<uint8_t>;

inline constexpr int kJournal = tarn::kFileJournal;
inline constexpr int kSyslog = tarn::kFileSyslog;
inline constexpr int kStream = tarn::kFileStream;
inline constexpr int kPicture = tarn::kFilePicture;

// Journal and syslog chunks of 4096 bytes, stream chunks of 256 KiB, picture chunks of 8 KiB.
inline CardLayout tinyChunks() {
  CardLayout layout;
  layout.families[kJournal] = {4096, 4, 0};
  layout.families[kSyslog] = {4096, 5, 0};
  layout.families[kStream] = {256 * kKiB, 4, 0};
  layout.families[kPicture] = {8 * kKiB, 4, 0};
  return layout;
}

// The management server on the card, served by a thread of its own.
class ServerThread {
 public:
  ServerThread() : started_(server_.start() == 0) {
    if (!started_) throw std::runtime_error("management server did not start");
    thread_ = std::thread([this] { server_.run(); });
  }
  ~ServerThread() {
    server_.requestStop();
    thread_.join();
  }

 private:
  tarn::ManagementServer server_;
  bool started_;
  std::thread thread_;
};

// A card with event readers' needs only: no server, no manager.
struct PlainCard {
  PlainCard() : card(tinyChunks()) { card.initManagement(); }
  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
};

// A card, the server on it and an open manager of each kind.
struct ManagedCard {
  explicit ManagedCard(const CardLayout& layout = tinyChunks()) : card(layout) {
    card.initManagement();
    startServer();
  }
  ~ManagedCard() { closeManagers(); }
  // Starts a server and connects the managers to it.
  void startServer() {
    server = std::make_unique<ServerThread>();
    closeManagers();
    EXPECT_EQ(journal.openManageData(), 0);
    EXPECT_EQ(syslog.openManageData(), 0);
    EXPECT_EQ(stream.openManageData(), 0);
    log.clear();
    io.clear();
  }
  // The server saves what it has and goes; requests fail until another one is started.
  void stopServer() {
    server.reset();
    log.clear();
    io.clear();
  }
  void closeManagers() {
    stream.closeManageData();
    syslog.closeManageData();
    journal.closeManageData();
  }

  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
  std::unique_ptr<ServerThread> server;
  CTARNEndlessManager journal{tarn::kRecorderPartition, kJournal};
  CTARNSyslogManager syslog{tarn::kRecorderPartition};
  CTARNStreamManager stream{tarn::kRecorderPartition};
};

inline CHUNK_USAGE usageOf(CTARNManagerBase& manager, short chunk) {
  CHUNK_USAGE usage = {77, 77, 77, 77};
  EXPECT_EQ(manager.getUsage(chunk, &usage), 0);
  return usage;
}

inline void setUsage(CTARNManagerBase& manager, short chunk, uint32_t use, uint32_t free) {
  EXPECT_EQ(manager.setUseOffset(chunk, use), 0);
  EXPECT_EQ(manager.setFreeOffset(chunk, free), 0);
}

inline CHUNK_EVENT eventOf(int chunk, uint32_t start, uint32_t size) {
  CHUNK_EVENT event = {};
  event.chunkID = static_cast<uint16_t>(chunk);
  event.partition = tarn::kRecorderPartition;
  event.startOffset = start;
  event.size = size;
  return event;
}

// A chunk whose inside a test may look at.
template <typename Chunk>
class Probe : public Chunk {
 public:
  using Chunk::Chunk;
  using Chunk::chunkID;
  using Chunk::chunkSize;
  using Chunk::displayName;
  using Chunk::eventSize;
  using Chunk::eventStart;
  using Chunk::fat;
  using Chunk::fatFileName;
  using Chunk::freeAddr;
  using Chunk::handle;
  using Chunk::kind;
  using Chunk::manager;
  using Chunk::openMode;
  using Chunk::partition;
  using Chunk::useAddr;
};
using JournalProbe = Probe<CTARNEndlessChunk>;
using SyslogProbe = Probe<CTARNSyslogChunk>;
using StreamProbe = Probe<CTARNStreamChunk>;

inline long writeBytes(CTARNChunkBase& chunk, Bytes bytes) {
  return chunk.write(bytes.data(), static_cast<long>(bytes.size()));
}

inline Bytes part(const Bytes& bytes, size_t from, size_t length) {
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(from);
  return Bytes(begin, begin + static_cast<std::ptrdiff_t>(length));
}

// Errors and warnings, volume access's own without their prefix. Notices of the server's thread at
// lower priorities are left out.
inline std::vector<LogLine> problems(const SyslogCapture& log) {
  std::vector<LogLine> result;
  for (const LogLine& line : log.withoutPrefix()) {
    if (line.priority <= LOG_WARNING) result.push_back(line);
  }
  return result;
}

inline LogLine err(std::string text) { return {LOG_ERR, std::move(text)}; }
inline LogLine warning(std::string text) { return {LOG_WARNING, std::move(text)}; }

// What `work` prints to standard output.
template <typename Work>
std::string printedBy(Work&& work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

}  // namespace tarn_test
