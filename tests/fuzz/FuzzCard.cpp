#include "fuzz/FuzzCard.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "base/Crc32.h"
#include "base/Endian.h"
#include "dblog/CDbLog.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "fat/FatFormat.h"
#include "fuzz/ChunksOfCard.h"
#include "fuzz/RemoveFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/VolumeFormat.h"
#include "recorder/log/LogWriter.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/ImageFormat.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"
#include "recorder/session/SoundSession.h"
#include "support/RawCalls.h"

namespace tarn_fuzz {
namespace {

constexpr uint32_t kKiB = 1024;
constexpr uint32_t kStart = 1700000000;
constexpr uint32_t kLooks = 1000;  // one of so many restorings is looked at
constexpr uint64_t kSector = 512;
constexpr int64_t kMostSqliteBytes = int64_t{8} * kKiB * kKiB;  // while nothing runs
// Upper half of the length byte of a change.
constexpr uint8_t kSealed = 0x10;
constexpr uint8_t kRefused = 0x20;
constexpr uint8_t kDeviceEnd = 0x40;

// A target that cannot be set up must not pass for one that found nothing.
void need(bool done, const char* what) {
  if (done) return;
  fprintf(stderr, "the card of the fuzz target could not be made: %s\n", what);
  abort();
}

void writePictures(tarn::RecordingSession* session, uint32_t from, uint32_t to) {
  for (uint32_t i = from; i < to; ++i) {
    std::vector<uint8_t> picture(300 + i % 50, static_cast<uint8_t>(i | 1));
    const uint8_t head[] = {0, 0, 0, 1, static_cast<uint8_t>(i % 10 == 0 ? 0x65 : 0x41)};
    memcpy(picture.data(), head, sizeof head);
    const tarn::PictureTime time = {kStart + i / 10, i % 10 * 100000};
    need(session->writePicture(picture.data(), picture.size(), time, 0, i % 10 == 0) == 0,
         session->errorText());
  }
}

// Half a second of AAC, as far as anybody looks.
void writeSound(tarn::SoundSession* session, uint32_t from, uint32_t to) {
  for (uint32_t i = from; i < to; ++i) {
    const std::vector<uint8_t> frame(40 + i % 7, static_cast<uint8_t>(i | 1));
    const int64_t micros = int64_t{kStart} * 1000000 + int64_t{i} * 128000;
    need(session->writeFrame(frame.data(), frame.size(), tarn::PictureTime::fromMicros(micros),
                             1024) == 0,
         session->errorText());
  }
}

tarn::SoundOptions soundOptions() {
  tarn::SoundOptions options;
  options.format = {tarn::SoundCodec::kAac, 1, 8000, {0x15, 0x88}};
  options.segmentSeconds = 2;
  return options;
}

bool isZeros(const char* page) { return page[0] == 0 && memcmp(page, page + 1, kPage - 1) == 0; }

// Three blocks of the search for its end, and some.
void writeLog() {
  tarn::LogWriter log;
  need(log.open() == 0, log.errorText());
  for (int i = 0; i < 70; ++i) {
    const std::string text = "line " + std::to_string(i) + std::string(170, '.');
    need(log.append(text.data(), text.size(), kStart + i) == 0, log.errorText());
  }
  need(log.close() == 0, log.errorText());
}

}  // namespace

FuzzCard& FuzzCard::get() {
  static FuzzCard card;
  return card;
}

FuzzCard::FuzzCard() {
  setenv("TZ", "XYZ-02:00", 1);
  tzset();
  record();
  fd_ = open(kCardPath, O_RDWR | O_CLOEXEC);
  struct stat file = {};
  need(fd_ >= 0 && fstat(fd_, &file) == 0, "open");
  base_.resize(static_cast<size_t>(file.st_size));
  adopt();
  findRegions();
  refuse(fd_, {});
}

// What is zeros becomes a hole, so that making the card good again looks at the rest alone.
void FuzzCard::adopt() {
  get(0, base_.data(), base_.size());
  for (size_t offset = 0; offset + kPage <= base_.size(); offset += kPage) {
    if (!isZeros(base_.data() + offset)) continue;
    fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), kPage);
  }
}

void FuzzCard::record() {
  tarn::CardRequest request;
  request.sizeBytes = 34 * kKiB * kKiB;
  request.families[tarn::kFileStream] = {64 * kKiB, 4};
  request.families[tarn::kFilePicture] = {8 * kKiB, 4};
  request.families[tarn::kFileJournal] = {68 * kKiB, 4};  // blocks are of 64
  request.families[tarn::kFileSyslog] = {16 * kKiB, 5};
  request.families[tarn::kFileDbImage] = {64 * kKiB, 1};
  std::string error;
  unlink(kCardPath);
  need(tarn::CardFormatter().format(kCardPath, request, {}, &error) == 0, error.c_str());
  need(tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error), error.c_str());
  tarn::ManagementServer server;
  need(server.start() == 0, "server");
  std::thread thread([&server] { server.run(); });
  writeLog();
  {
    tarn::RecordingSession session;
    tarn::RecordingOptions options;
    options.segmentSeconds = 2;
    need(session.open(options) == 0, session.errorText());
    writePictures(&session, 0, 30);
    tarn::SoundSession sound;
    need(sound.open(soundOptions()) == 0, sound.errorText());
    writeSound(&sound, 0, 40);
    const uint32_t event = session.beginEvent(7, {kStart + 3, 0}, 1);
    writePictures(&session, 30, 50);
    need(session.endEvent(event, {kStart + 5, 0}) == 0, "event");
    need(session.beginEvent(8, {kStart + 5, 0}, 0) != 0, "event");
    writePictures(&session, 50, 58);
    need(session.flush() == 0, session.errorText());
    need(sound.flush() == 0, sound.errorText());
    // The image as of now, while the newest recording and an event are open.
    CDbLog::getInstance()->finish();
    std::string whole;
    FILE* card = fopen(kCardPath, "rb");
    need(card != nullptr, "read");
    whole.resize(static_cast<size_t>(request.sizeBytes));
    need(fread(whole.data(), 1, whole.size(), card) == whole.size(), "read");
    fclose(card);
    sound.close();
    session.close();
    CDbLog::getInstance()->finish();
    server.requestStop();
    thread.join();
    card = fopen(kCardPath, "r+b");
    need(card != nullptr && fwrite(whole.data(), 1, whole.size(), card) == whole.size() &&
             fclose(card) == 0,
         "write back");
  }
}

void FuzzCard::add(uint32_t part, uint64_t offset, uint64_t size, Seal seal, uint32_t unit) {
  regions_.push_back({part, offset, static_cast<uint32_t>(size), seal, unit});
}

void FuzzCard::findRegions() {
  tarn::CardInfo info;
  std::string error;
  need(info.read(kCardPath, &error) == 0, error.c_str());
  const auto* boot = reinterpret_cast<const uint8_t*>(base_.data());
  const uint64_t fats = uint64_t{tarn::getLe16(boot + 14)} * 512;
  const uint64_t fatBytes = uint64_t{tarn::getLe32(boot + 36)} * 512;
  add(kVolume, 0, 1024);
  add(kVolume, 6 * 512, 1024);
  add(kVolume, fats, 1024);
  add(kVolume, fats + fatBytes, 1024);
  add(kVolume, fats + 2 * fatBytes, 1024);
  add(kVolume, info.family(tarn::kFileInfo).startByte(), 1024, Seal::kInfo);
  // And where their chains lead through both FATs.
  const tarn::FatBoot head = tarn::decodeFatBoot(boot);
  const uint64_t behind =
      info.family(tarn::kFileStreamManage).startByte() - head.dataSector() * kSector;
  const uint64_t cluster = 2 + behind / (head.clusterSectors * kSector);
  add(kVolume, fats + 4 * cluster, 1024);
  add(kVolume, fats + fatBytes + 4 * cluster, 1024);
  const std::pair<int, int> manage[] = {{tarn::kFileStreamManage, tarn::kFileStream},
                                        {tarn::kFileSyslogManage, tarn::kFileSyslog},
                                        {tarn::kFileJournalManage, tarn::kFileJournal}};
  for (const auto& [file, chunks] : manage) {
    const tarn::CardFamily& family = info.family(file);
    const uint32_t count = info.family(chunks).chunks;
    const uint32_t part = chunks == tarn::kFileJournal ? kManage | kJournalManage : kManage;
    for (uint32_t copy = 0; copy < 2; ++copy) {
      add(part, family.startByte() + uint64_t{copy} * family.chunkSize, tarn::manageDataSize(count),
          Seal::kManage, count);
    }
  }
  const tarn::CardFamily& journal = info.family(tarn::kFileJournal);
  for (uint32_t chunk = 0; chunk < 4; ++chunk) {
    add(kJournal, journal.startByte() + uint64_t{chunk} * journal.chunkSize, 640, Seal::kJournal,
        chunk < 2 ? 32 : 64);
  }
  for (uint32_t chunk = 0; chunk < 4; ++chunk) {
    add(kJournal, journal.startByte() + uint64_t{chunk + 1} * journal.chunkSize - 64, 64,
        Seal::kJournal, chunk < 2 ? 32 : 64);
  }
  const tarn::CardFamily& pictures = info.family(tarn::kFilePicture);
  // The chunk of the pictures, then that of their sound.
  const tarn::CardFamily& streams = info.family(tarn::kFileStream);
  const ChunksOfCard chunks = chunksOfCard(base_, info);
  need(chunks.pictures < streams.chunks && chunks.sound < streams.chunks, "pictures and sound");
  for (const uint32_t chunk : {chunks.pictures, chunks.sound}) {
    const uint64_t start = pictures.startByte() + uint64_t{chunk} * pictures.chunkSize;
    add(kPictures, start, 62 * tarn::kRecordSize, Seal::kEntry, tarn::kRecordSize);
    add(kPictures, start, 62 * tarn::kRecordSize, Seal::kHeader, tarn::kRecordSize);
  }
  add(kStreams, streams.startByte() + uint64_t{chunks.pictures} * streams.chunkSize, 24 * kKiB);
  add(kLog, info.family(tarn::kFileSyslog).startByte(), 16 * kKiB);
  const tarn::CardFamily& image = info.family(tarn::kFileDbImage);
  add(kImage | kImageBytes, image.startByte(), 40 * kKiB);
  add(kImage, image.startByte() + image.chunkSize - tarn::kImageSealRoom, tarn::kImageSealSize);
  add(kStreams, streams.startByte() + uint64_t{chunks.sound} * streams.chunkSize, 4 * kKiB);
}

void FuzzCard::put(uint64_t offset, const void* data, size_t length) {
  noteWritten(offset, length);
  need(tarn_test::rawPwrite(fd_, data, length, static_cast<int64_t>(offset)) ==
           static_cast<ssize_t>(length),
       "write");
}

void FuzzCard::get(uint64_t offset, void* data, size_t length) {
  need(tarn_test::rawPread(fd_, data, length, static_cast<int64_t>(offset)) ==
           static_cast<ssize_t>(length),
       "read");
}

void FuzzCard::seal(const Region& region, uint32_t offset) {
  if (region.seal == Seal::kNone) return;
  if (region.seal == Seal::kInfo) {
    uint8_t file[tarn::kInfoSealedBytes];
    get(region.offset, file, sizeof file);
    tarn::sealInfoFile(file);
    return put(region.offset, file, sizeof file);
  }
  if (region.seal == Seal::kManage) {
    std::vector<uint8_t> file(region.size);
    get(region.offset, file.data(), file.size());
    tarn::sealManageData(file.data(), region.unit);
    return put(region.offset, file.data(), file.size());
  }
  const uint32_t start = offset - offset % region.unit;
  if (start + region.unit > region.size) return;
  uint8_t record[64];
  get(region.offset + start, record, region.unit);
  if (region.seal == Seal::kJournal) {
    tarn::sealJournalRecord(record, region.unit - 4);
  } else if (region.seal == Seal::kEntry) {
    tarn::PictureEntry entry;
    tarn::decodePictureEntry(record, &entry);
    tarn::encodePictureEntry(entry, record);
  } else {
    tarn::StreamHeader header;
    tarn::decodeStreamHeader(record, &header);
    tarn::encodeStreamHeader(header, record);
  }
  put(region.offset + start, record, region.unit);
}

size_t FuzzCard::damage(const uint8_t* data, size_t size, uint32_t parts) {
  std::vector<const Region*> mine;
  for (const Region& region : regions_) {
    if ((region.part & parts) != 0) mine.push_back(&region);
  }
  size_t changes = 0;
  while (size >= 7) {
    const Region& region = *mine[tarn::getLe16(data) % mine.size()];
    const uint32_t offset = (data[2] | data[3] << 8 | data[4] << 16) % region.size;
    const uint8_t kind = data[5];
    const size_t length = std::min<size_t>({size_t{kind} % 16 + 1, size - 6, region.size - offset});
    if ((kind & kDeviceEnd) != 0) {
      end_ = region.offset + offset;
    } else if ((kind & kRefused) != 0) {
      refuseAt(region.offset + offset, data + 6, length);
    } else {
      put(region.offset + offset, data + 6, length);
      if ((kind & kSealed) != 0) seal(region, offset);
      ++changes;
    }
    data += 6 + length;
    size -= 6 + length;
  }
  if (end_ != 0) {
    notePagesBehindEnd();
    need(ftruncate(fd_, static_cast<off_t>(end_)) == 0, "cut");
  }
  refuse(fd_, refusals_);
  return changes;
}

void FuzzCard::refuseAt(uint64_t offset, const uint8_t* order, size_t length) {
  Refusal refusal;
  const uint64_t sectors = length < 3 ? 1 : tarn::getLe16(order + 1);
  refusal.from = offset - offset % kSector;
  refusal.to = refusal.from + sectors * kSector;
  refusal.skip = length < 4 ? 0 : order[3] % 64;
  const int times = order[0] & kRefuseTimes;
  refusal.times = times == 0 ? kForever : times;
  refusal.isShort = (order[0] & kRefuseShort) != 0;
  refusal.writes = (order[0] & kRefuseWrites) != 0;
  refusals_.push_back(refusal);
}

void FuzzCard::liftRefusals() {
  refuse(fd_, {});
  refusals_.clear();
}

// Walks the pages that are no holes. The last one may be cut.
template <typename Look>
void FuzzCard::eachPage(Look look) {
  char page[kPage];
  for (off_t at = 0; (at = lseek(fd_, at, SEEK_DATA)) >= 0; at += kPage) {
    at -= at % static_cast<off_t>(kPage);
    memset(page, 0, kPage);
    need(tarn_test::rawPread(fd_, page, kPage, at) > 0, "read");
    look(static_cast<size_t>(at), page);
  }
}

// Sorted, so that the order of writing makes no difference.
uint32_t FuzzCard::digest() {
  std::vector<uint32_t> pages = takeWrittenPages();
  std::sort(pages.begin(), pages.end());
  uint32_t sum = 0;
  for (const uint32_t number : pages) {
    const uint64_t offset = uint64_t{number} * kPage;
    noteWritten(offset, 1);
    char page[kPage] = {};
    need(tarn_test::rawPread(fd_, page, kPage, static_cast<int64_t>(offset)) >= 0, "read");
    if (offset < base_.size() && memcmp(page, base_.data() + offset, kPage) == 0) continue;
    sum = sum * 31 + number;
    sum = sum * 31 + tarn::crc32(page, kPage);
  }
  return sum;
}

// What lies behind a device's end is gone like what is written over.
void FuzzCard::notePagesBehindEnd() {
  for (size_t page = end_ - end_ % kPage; page < base_.size(); page += kPage) {
    if (!isZeros(base_.data() + page)) noteWritten(page, 1);
  }
}

// Whether what was noted was all that was written.
void FuzzCard::expectAllPutBack() {
  eachPage([this](size_t offset, const char* page) {
    need(memcmp(page, base_.data() + offset, kPage) == 0, "put back");
  });
}

// A page of zeros becomes a hole, what lay behind the end as well.
void FuzzCard::restore() {
  liftRefusals();
  need(ftruncate(fd_, static_cast<off_t>(base_.size())) == 0, "size");
  end_ = 0;
  for (const uint32_t number : takeWrittenPages()) {
    const size_t offset = size_t{number} * kPage;
    if (offset >= base_.size()) continue;
    const char* page = base_.data() + offset;
    if (isZeros(page)) {
      fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), kPage);
    } else {
      need(tarn_test::rawPwrite(fd_, page, kPage, static_cast<int64_t>(offset)) == kPage, "write");
    }
  }
  need(sqlite3_memory_used() < kMostSqliteBytes, "SQLite's memory is not given back");
  if (restored_++ % kLooks == 0) expectAllPutBack();
  removeFiles("/tmp/DB.dat*");
  removeFiles("/tmp/sd_err_mem_write");
}

}  // namespace tarn_fuzz
