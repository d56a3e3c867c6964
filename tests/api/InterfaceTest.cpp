// Every public operation with exactly the types that programs are compiled against. A changed
// signature does not compile, one that is not exported does not link, and virtual operations keep
// their places.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "api/CApiTarnSyslogRead.h"
#include "chunk/CTARNDBChunk.h"
#include "chunk/CTARNMirroredChunk.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/CTARNSyslogChunk.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "dblog/CDbRestore.h"
#include "manager/CTARNEndlessManager.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNStreamManager.h"
#include "manager/CTARNSyslogManager.h"
#include "mesg/CMesgClient.h"
#include "mesg/CMesgServer.h"

namespace {

using Ulong = unsigned long;
using Ushort = unsigned short;
using Schar = signed char;
using Uchar = unsigned char;

// The operation of C with this signature; its address is needed to link.
template <typename C, typename Signature>
void offers(Signature C::*operation) {
  EXPECT_TRUE(operation != nullptr);
}

template <typename Signature>
void offersStatic(Signature* operation) {
  EXPECT_TRUE(operation != nullptr);
}

// Place of a virtual operation in its class's table: a pointer to it begins with the place's offset
// (and a mark in the lowest bit on some machines).
template <typename C, typename Signature>
size_t slot(Signature C::*operation) {
  size_t word = 0;
  memcpy(&word, &operation, sizeof word);
  return word / sizeof(void*);
}

template <typename C, typename... Arguments>
constexpr bool isMadeFrom = std::is_constructible_v<C, Arguments...>;

TEST(Interface, RawVolumeAccess) {
  using C = CFATAccess;
  static_assert(isMadeFrom<C>);
  offers<C, int(const char*, int)>(&C::open);
  offers<C, Ushort(int)>(&C::chunks);
  offers<C, Ulong(int)>(&C::getChunkSize);
  offers<C, Ulong(int)>(&C::streamChunkSize);
  offers<C, Ulong(int)>(&C::pictureChunkSize);
  offers<C, long(int, void*, Ulong)>(&C::read);
  offers<C, long(int, const void*, Ulong)>(&C::write);
  offers<C, long(int, long, int)>(&C::lseek);
  offers<C, int(int)>(&C::fsync);
  offers<C, int(int)>(&C::close);
  offers<C, bool(int)>(&C::isSdAligned);
  offers<C, int()>(&C::startThread);
  offersStatic<void*(void*)>(&C::m_runThread);
  offers<C, void()>(&C::m_bufferWriteFunc);
  static_assert(!std::is_polymorphic_v<C>);
}

TEST(Interface, ChunkBase) {
  using C = CTARNChunkBase;
  static_assert(isMadeFrom<C>);
  offers<C, int(CTARNManagerBase*, Ushort)>(&C::openChunkFile);
  offers<C, int(const CHUNK_EVENT*)>(&C::openChunkFile);
  offers<C, int(long)>(&C::openChunkLow);
  offers<C, int()>(&C::closeChunkFile);
  offers<C, int()>(&C::fSync);
  offers<C, long(void*, long)>(&C::write);
  offers<C, long(void*, long)>(&C::writeNoSeek);
  offers<C, long(void*, long)>(&C::read);
  offers<C, long(long, int)>(&C::seek);
  offers<C, long(long, int)>(&C::seekEvent);
  offers<C, char*()>(&C::makeFatFileName);
  offersStatic<int(Schar, char*)>(&C::ConvertPartitionNumberToDeviceName);
  offers<C, Schar()>(&C::setUsageToManager);
  offers<C, Schar()>(&C::setFreeToManager);
  offers<C, Schar()>(&C::getUsageFromManager);
  offers<C, void(Ulong)>(&C::setUseAddr);
  offers<C, void(Ulong)>(&C::setFreeAddr);
  offers<C, void()>(&C::calcFreeSize);
  offers<C, Ulong() const>(&C::getFreeSize);
  offers<C, Ulong() const>(&C::getFreeAddr);
  offers<C, short() const>(&C::getChunkId);
  offers<C, Ulong() const>(&C::getChunkSize);
  offers<C, long()>(&C::currentOffset);
  offers<C, void()>(&C::printCurrentOffset);
  offers<C, void()>(&C::disp_kanri_data);
}

TEST(Interface, ChunkOperationsKeepTheirPlaces) {
  using C = CTARNChunkBase;
  EXPECT_EQ(slot(&C::setUsageToManager), 0u);
  EXPECT_EQ(slot(&C::setFreeToManager), 1u);
  EXPECT_EQ(slot(&C::getUsageFromManager), 2u);
  EXPECT_EQ(slot(&C::makeFatFileName), 3u);
  static_assert(std::has_virtual_destructor_v<C>);  // 4 and 5
  EXPECT_EQ(slot(&C::write), 6u);
}

TEST(Interface, StreamEndlessAndSyslogChunks) {
  using S = CTARNStreamChunk;
  static_assert(isMadeFrom<S, Uchar> && std::is_base_of_v<CTARNChunkBase, S>);
  offers<S, Schar()>(&S::setUsageToManager);
  offers<S, Schar()>(&S::setFreeToManager);
  offers<S, Schar()>(&S::getUsageFromManager);
  offers<S, char*()>(&S::makeFatFileName);
  offers<S, Ulong()>(&S::writtenSize);
  offers<S, long(Ulong, void*, long)>(&S::seekRead);
  offers<S, Ulong(Ulong)>(&S::streamSize);
  using E = CTARNEndlessChunk;
  static_assert(isMadeFrom<E, Schar> && std::is_base_of_v<CTARNChunkBase, E>);
  offers<E, char*()>(&E::makeFatFileName);
  offers<E, long(void*, long)>(&E::write);
  offers<E, int(long)>(&E::writeRollback);
  offers<E, void(Ulong)>(&E::setFreeAddr);
  offers<E, void()>(&E::initFreeAddr);
  using L = CTARNSyslogChunk;
  static_assert(isMadeFrom<L> && std::is_base_of_v<CTARNChunkBase, L>);
  offers<L, char*()>(&L::makeFatFileName);
}

TEST(Interface, MirroredChunk) {
  using C = CTARNMirroredChunk;
  static_assert(isMadeFrom<C, Schar> && !std::is_base_of_v<CTARNChunkBase, C>);
  offers<C, int(const CHUNK_EVENT*, const CHUNK_EVENT*)>(&C::openChunkFile);
  offers<C, int(CTARNManagerBase*, Ushort, Ushort)>(&C::openChunkFile);
  offers<C, int()>(&C::closeChunkFile);
  offers<C, int()>(&C::fSync);
  offers<C, long(void*, long, long)>(&C::write);
  offers<C, long(void*, long, long)>(&C::writeNoSeek);
  offers<C, long(void*, long, long)>(&C::read);
  offers<C, int(CTARNEndlessChunk*, void*, long, long)>(&C::readAndCheck);
  offers<C, long(long, int)>(&C::seek);
  offers<C, long(long, int)>(&C::seekEvent);
  offers<C, Ushort(const void*, Ulong)>(&C::calcCrc);
  offers<C, Ulong() const>(&C::getFreeSize);
  offers<C, Ulong() const>(&C::getFreeAddr);
  offers<C, Ulong() const>(&C::getChunkSize);
  offers<C, long()>(&C::currentOffset);
  offers<C, int(Schar, char*)>(&C::ConvertPartitionNumberToDeviceName);
  offers<C, Ushort() const>(&C::getChunkId);
  offers<C, void()>(&C::initFreeAddr);
  offers<C, void()>(&C::dispParameter);
  static_assert(!std::is_polymorphic_v<C>);
}

TEST(Interface, ChunkRecordsHaveTheirFieldsInOrder) {
  static_assert(offsetof(CHUNK_EVENT, chunkID) < offsetof(CHUNK_EVENT, partition));
  static_assert(offsetof(CHUNK_EVENT, partition) < offsetof(CHUNK_EVENT, startOffset));
  static_assert(offsetof(CHUNK_EVENT, startOffset) < offsetof(CHUNK_EVENT, size));
  const CHUNK_EVENT event{7, -3, 0xFFFFFFFE, 0xFFFFFFFD};
  static_assert(std::is_same_v<decltype(event.chunkID), uint16_t>);
  static_assert(std::is_same_v<decltype(event.partition), int8_t>);
  EXPECT_EQ(event.partition, -3);
  EXPECT_EQ(event.startOffset, 0xFFFFFFFE);
  const CHUNK_USAGE usage{1, 2, 3, 4};
  EXPECT_EQ(usage.useAddr, 1u);
  EXPECT_EQ(usage.freeAddr, 2u);
  EXPECT_EQ(usage.streamUseAddr, 3u);
  EXPECT_EQ(usage.streamFreeAddr, 4u);
  const CHUNK_MANAGE manage{{0, 0, 0, 0, 0, 0}, -1, -2, 1, 2, 3, 4};
  EXPECT_EQ(manage.chType, -1);
  EXPECT_EQ(manage.recType, -2);
  EXPECT_EQ(manage.streamUseOffset, 1u);
  EXPECT_EQ(manage.streamFreeOffset, 2u);
  EXPECT_EQ(manage.pictureUseOffset, 3u);
  EXPECT_EQ(manage.pictureFreeOffset, 4u);
}

TEST(Interface, NativeStores) {
  using C = CTARNStreamManagerNative;
  static_assert(isMadeFrom<C>);
  offers<C, int(Ushort)>(&C::openManageData);
  offers<C, int()>(&C::closeManageData);
  offers<C, int()>(&C::saveManageData);
  offers<C, int(const char*)>(&C::getChunkInfo);
  offers<C, int(short, CHUNK_USAGE*)>(&C::getUsage);
  offers<C, int(short, CHUNK_MANAGE*)>(&C::getManageData);
  offers<C, int(short, Ulong, Uchar)>(&C::setUsage);
  offers<C, int(short, Ulong, Uchar)>(&C::setFree);
  offers<C, int(short, Schar, Schar)>(&C::setChType);
  offers<C, int(Schar)>(&C::setRecTypeAll);
  offers<C, Ulong(short)>(&C::freeSize);
  offers<C, Ulong(short)>(&C::freeSizePicture);
  offers<C, long long()>(&C::freeSizeTotal);
  offers<C, Ushort()>(&C::numChunk);
  offers<C, Ushort()>(&C::numUsedChunk);
  offers<C, Ulong(short)>(&C::getChunkSize);
  offers<C, short(Ulong, Schar, Schar)>(&C::firstAvailableChunk);
  offers<C, Ushort(const Uchar*, long)>(&C::getCRC);
  using E = CTARNEndlessManagerNative;
  static_assert(isMadeFrom<E, Schar> && std::is_base_of_v<C, E>);
  offers<E, int(const char*)>(&E::getChunkInfo);
  offers<E, int(short, CHUNK_USAGE*)>(&E::getUsage);
  offers<E, int(short, Ulong, Uchar)>(&E::setUsage);
  offers<E, int(short, Ulong, Uchar)>(&E::setFree);
}

TEST(Interface, StoreAndManagerOperationsKeepTheirPlaces) {
  using N = CTARNStreamManagerNative;
  EXPECT_EQ(slot(&N::getChunkInfo), 0u);
  static_assert(std::has_virtual_destructor_v<N>);  // 1 and 2
  EXPECT_EQ(slot(&N::getUsage), 3u);
  EXPECT_EQ(slot(&N::setUsage), 4u);
  EXPECT_EQ(slot(&N::setFree), 5u);
  using M = CTARNManagerBase;
  static_assert(std::has_virtual_destructor_v<M>);  // 0 and 1
  EXPECT_EQ(slot(&M::getUsage), 2u);
  EXPECT_EQ(slot(&M::setUseOffset), 3u);
}

TEST(Interface, Managers) {
  using C = CTARNManagerBase;
  static_assert(isMadeFrom<C>);
  offers<C, int()>(&C::openManageData);
  offers<C, int()>(&C::closeManageData);
  offers<C, int(short, CHUNK_USAGE*)>(&C::getUsage);
  offers<C, int(short, Schar*, Schar*)>(&C::getChunkAttr);
  offers<C, int(short, Schar, Schar)>(&C::setChunkAttr);
  offers<C, int(short, Ulong)>(&C::setUseOffset);
  offers<C, int(short, Ulong)>(&C::setFreeOffset);
  offers<C, int()>(&C::saveManageData);
  offers<C, Ulong(short)>(&C::freeSize);
  offers<C, long long()>(&C::getFreeSizeTotal);
  offers<C, Ushort()>(&C::getNumChunk);
  offers<C, Ushort()>(&C::getNumUsedChunk);
  offers<C, Ulong()>(&C::getChunkSize);
  offers<C, short(Ulong)>(&C::firstAvailableChunk);
  offers<C, Schar()>(&C::getPartitionNumber);
  offers<C, int(short, Ulong, Ulong)>(&C::deleteData);
  using S = CTARNStreamManager;
  static_assert(isMadeFrom<S, Schar> && std::is_base_of_v<C, S>);
  offers<S, int()>(&S::openManageData);
  offers<S, int(short, CHUNK_USAGE*, Uchar)>(&S::getUsage);
  offers<S, int(short, Ulong, Uchar)>(&S::setUseOffset);
  offers<S, int(short, Ulong, Uchar)>(&S::setFreeOffset);
  offers<S, Schar(short, Schar*, Schar*)>(&S::getChType);
  offers<S, Schar(short, Schar, Schar)>(&S::setChType);
  offers<S, short(Ulong, Schar, Schar)>(&S::firstAvailableChunk);
  offers<S, Ulong(short)>(&S::freeSize);
  offers<S, Ulong()>(&S::streamChunkSize);
  offers<S, Ulong()>(&S::pictureChunkSize);
  offers<S, long(short, Ulong, Ulong)>(&S::deleteData);
  using L = CTARNSyslogManager;
  static_assert(isMadeFrom<L, Schar> && std::is_base_of_v<C, L>);
  offers<L, Schar(short, Schar*)>(&L::getActiveFlag);
  offers<L, Schar(short, Schar)>(&L::setActiveFlag);
  static_assert(isMadeFrom<CTARNEndlessManager, Schar, Schar>);
  static_assert(std::is_base_of_v<C, CTARNEndlessManager>);
}

TEST(Interface, Messages) {
  using S = CMesgServer;
  static_assert(isMadeFrom<S, const char*, Ulong, Ulong>);
  offers<S, int()>(&S::startAcceptNewConnectionThread);
  offers<S, int()>(&S::stopAcceptNewConnectionThread);
  offers<S, int()>(&S::select);
  offers<S, long(void*, long, long*)>(&S::readMesg);
  offers<S, long(const void*, long, long)>(&S::writeMesg);
  using C = CMesgClient;
  static_assert(isMadeFrom<C, const char*>);
  offers<C, int()>(&C::select);
  offers<C, long(void*, long)>(&C::readMesg);
  offers<C, long(const void*, long)>(&C::writeMesg);
}

TEST(Interface, DatabaseConnection) {
  using C = CApiDb;
  static_assert(isMadeFrom<C> && !std::is_polymorphic_v<C>);
  offers<C, uint32_t(const char*)>(&C::connect);
  offers<C, uint32_t()>(&C::finish);
  offers<C, uint32_t(int)>(&C::createSem);
  offers<C, uint32_t()>(&C::lockSem);
  offers<C, uint32_t()>(&C::unlockSem);
  offers<C, uint32_t(const char*)>(&C::setSql);
  offers<C, uint32_t(const char*)>(&C::setSqlNoResult);
  offers<C, uint32_t(long, long)>(&C::getValue);
  offers<C, uint64_t(long, long)>(&C::getValue64);
  offers<C, uint32_t() const>(&C::getNTuple);
  offers<C, uint32_t() const>(&C::getNColumn);
  offers<C, uint32_t()>(&C::getCmdTuple);
  offers<C, uint32_t()>(&C::begin);
  offers<C, uint32_t()>(&C::end);
  offers<C, void()>(&C::freeTable);
  offers<C, uint32_t()>(&C::getStatus);
}

TEST(Interface, DatabaseWritesAndQueries) {
  using C = CApiDb;
  static_assert(std::is_same_v<DB_EVENT_REG_BIT, uint32_t>);
  static_assert(std::is_same_v<DB_STREAM_REG_BIT, uint32_t>);
  offers<C, uint32_t(DB_EVENT*)>(&C::insertEvent);
  offers<C, uint32_t(DB_EVENT_REG_BIT, const DB_EVENT*)>(&C::updateEvent);
  offers<C, uint32_t(Ulong)>(&C::deleteEvent);
  offers<C, int32_t(Ulong)>(&C::deleteEventOlderTime);
  offers<C, uint32_t(DB_STREAM*)>(&C::insertStream);
  offers<C, uint32_t(DB_STREAM_REG_BIT, const DB_STREAM*)>(&C::updateStream);
  offers<C, uint32_t(Ulong)>(&C::deleteStream);
  offers<C, uint32_t(Ulong, DB_EVENT*)>(&C::selectEvent);
  offers<C, uint32_t(Ulong, DB_STREAM*)>(&C::selectStream);
  offers<C, uint32_t(Ulong, DB_STREAM*)>(&C::selectStreamTime);
  offers<C, uint32_t(Ulong, DB_STREAM*)>(&C::selectStreamTimeNext);
  offers<C, uint32_t(DB_STREAM*)>(&C::selectStreamOldest);
  offers<C, uint32_t(DB_STREAM*)>(&C::selectStreamOldestTime);
  offers<C, uint32_t(Ulong, Ulong, Ulong, Ulong, Ushort, Uchar, DB_EVENT*)>(&C::selectEventList);
  offers<C, uint32_t(DB_EVENT*, Ulong, const Ushort*, Ulong, Ulong, Ulong, Ulong, Ulong, Uchar)>(
      &C::selectViewerList);
  offers<C, uint32_t(Ulong, Ulong, Ulong)>(&C::selectCount);
  offers<C, int32_t(DB_STREAM*, Ulong, Ulong, Ulong, Ulong, Ulong)>(&C::selectRipList);
  offers<C, uint32_t(long, DB_EVENT*)>(&C::getEventValue);
  offers<C, uint32_t(long, DB_STREAM*)>(&C::getStreamValue);
  offersStatic<int(void*, int, char**, char**)>(&C::m_CountCallback);
}

TEST(Interface, Journal) {
  using C = CDbLog;
  static_assert(!isMadeFrom<C>);
  offersStatic<CDbLog*()>(&C::getInstance);
  offers<C, int()>(&C::connect);
  offers<C, bool(const DB_EVENT*)>(&C::insertEvent);
  offers<C, bool(DB_EVENT_REG_BIT, const DB_EVENT*)>(&C::updateEvent);
  offers<C, bool(Ulong)>(&C::deleteEvent);
  offers<C, bool(const DB_STREAM*)>(&C::insertStream);
  offers<C, bool(DB_STREAM_REG_BIT, const DB_STREAM*)>(&C::updateStream);
  offers<C, bool(Ulong)>(&C::deleteStream);
  offers<C, Ulong()>(&C::getEventLogBackOffset);
  offers<C, Ulong()>(&C::getStreamLogBackOffset);
  offers<C, Ulong(Ulong)>(&C::searchEventBackOffset);
  offers<C, Ulong(Ulong)>(&C::searchStreamBackOffset);
  offers<C, bool()>(&C::clearDbLogFreeAddr);
  offers<C, int()>(&C::writeLog);
  offers<C, int()>(&C::writeLogNoManage);
  offers<C, int()>(&C::finish);
}

TEST(Interface, Recovery) {
  using C = CDbRestore;
  static_assert(isMadeFrom<C>);
  offers<C, int()>(&C::setupEmptyDb);
  offers<C, int()>(&C::restoreEventDb);
  offers<C, int(short)>(&C::restoreStreamDb);
  offers<C, int(const DB_EVENT*)>(&C::updateEventDBLogNative);
  offers<C, int(short, Ulong, Ulong, Ulong, Ulong, Ulong)>(&C::updateStreamDBLogNative);
  offers<C, int(short, Ulong)>(&C::deleteDBLogNative);
  offers<C, int()>(&C::recoverJournalManage);
  offers<C, int()>(&C::fixUpLastStream);
  offers<C, int()>(&C::fixLastEventDb);
  offers<C, int(Ulong)>(&C::cleanupEventDb);
  offers<C, int(short, Ulong, const void*, long)>(&C::writePictureChunk);
  offers<C, int(const Uchar*, long)>(&C::getTimeStamp);
  offers<C, int()>(&C::recoverStreamManage);
  offers<C, int()>(&C::recoverSyslogManage);
  offers<C, int(CTARNEndlessManagerNative*, Uchar)>(&C::syslogActiveID);
  offers<C, int(CTARNEndlessManagerNative*, Uchar)>(&C::incrementSyslogActiveID);
}

TEST(Interface, DatabaseImageAndSyslogReader) {
  using D = CTARNDBChunk;
  static_assert(isMadeFrom<D>);
  offers<D, char*()>(&D::makeFatFileName);
  offers<D, int(const char*)>(&D::copyIn);
  offers<D, int(const char*)>(&D::copyOut);
  offers<D, long(const char*)>(&D::getDBSize);
  offers<D, int(long)>(&D::clearDBChunk);
  using R = CApiTarnSyslogRead;
  static_assert(isMadeFrom<R> && isMadeFrom<R, Schar>);
  offers<R, int(Uchar, short*, short*)>(&R::getChunkStartCount);
  offers<R, int(short, Schar*)>(&R::getActiveFlag);
  offers<R, int(short, CHUNK_USAGE*)>(&R::getUsage);
  offers<R, Schar(Uchar)>(&R::getActiveChunk);
  offers<R, int(Uchar, Uchar)>(&R::open);
  offers<R, int(Uchar, Uchar)>(&R::openChunk);
  offers<R, long(void*, long)>(&R::read);
  offers<R, int(long, int)>(&R::seek);
  offers<R, int()>(&R::close);
}

// Classes that programs make on the stack: what the compiler puts into them is exported, too.
TEST(Interface, EveryClassCanBeMade) {
  CFATAccess fat;
  CTARNChunkBase base;
  CTARNStreamChunk stream(1);
  CTARNEndlessChunk endless(2);
  CTARNSyslogChunk syslog;
  CTARNMirroredChunk mirrored(2);
  CTARNStreamManagerNative streamStore;
  CTARNEndlessManagerNative endlessStore(2);
  CTARNManagerBase manager;
  CTARNStreamManager streamManager('3');
  CTARNSyslogManager syslogManager('3');
  CTARNEndlessManager endlessManager('3', 2);
  CMesgClient client("/tmp/none");
  CMesgServer server("/tmp/none", 0, 0);
  CApiDb db;
  CDbRestore restore;
  CTARNDBChunk image;
  CApiTarnSyslogRead reader;
  EXPECT_EQ(manager.getPartitionNumber(), 51);
  EXPECT_EQ(streamManager.getPartitionNumber(), '3');
  EXPECT_EQ(base.getChunkId(), 0);
  EXPECT_STREQ(base.getDisplayName(), "dummy");
  EXPECT_STREQ(stream.getDisplayName(), "stream");
  EXPECT_STREQ(syslog.getDisplayName(), "syslog");
  EXPECT_STREQ(endless.getDisplayName(), "endless(DL)");
}

}  // namespace
