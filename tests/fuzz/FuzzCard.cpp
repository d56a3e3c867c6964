#include "fuzz/FuzzCard.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "base/Endian.h"
#include "dblog/CDbLog.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardInfo.h"
#include "recorder/log/LogWriter.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"

namespace tarn_fuzz {
namespace {

constexpr uint32_t kKiB = 1024;
constexpr uint32_t kStart = 1700000000;
constexpr size_t kPage = 4 * kKiB;

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

void removeAll(const char* pattern) {
  glob_t found = {};
  if (glob(pattern, 0, nullptr, &found) == 0) {
    for (size_t i = 0; i < found.gl_pathc; ++i) unlink(found.gl_pathv[i]);
  }
  globfree(&found);
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
}

// What is zeros becomes a hole, so that making the card good again looks at the rest alone.
void FuzzCard::adopt() {
  get(0, base_.data(), base_.size());
  const std::string zeros(kPage, '\0');
  for (size_t offset = 0; offset + kPage <= base_.size(); offset += kPage) {
    if (memcmp(base_.data() + offset, zeros.data(), kPage) != 0) continue;
    fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), kPage);
  }
}

void FuzzCard::record() {
  tarn::CardRequest request;
  request.sizeBytes = 34 * kKiB * kKiB;
  request.families[tarn::kFileStream] = {64 * kKiB, 3};
  request.families[tarn::kFilePicture] = {8 * kKiB, 3};
  request.families[tarn::kFileJournal] = {4 * kKiB, 4};
  request.families[tarn::kFileSyslog] = {16 * kKiB, 5};
  request.families[tarn::kFileDbImage] = {64 * kKiB, 1};
  std::string error;
  unlink(kCardPath);
  need(tarn::CardFormatter().format(kCardPath, request, {}, &error) == 0, error.c_str());
  need(tarn::DatabaseSetup::createEmpty(tarn::DatabaseSetup::defaultPath(), &error), error.c_str());
  tarn::ManagementServer server;
  need(server.start() == 0, "server");
  std::thread thread([&server] { server.run(); });
  {
    tarn::RecordingSession session;
    tarn::RecordingOptions options;
    options.segmentSeconds = 2;
    need(session.open(options) == 0, session.errorText());
    writePictures(&session, 0, 30);
    const uint32_t event = session.beginEvent(7, {kStart + 3, 0}, 1);
    writePictures(&session, 30, 50);
    need(session.endEvent(event, {kStart + 5, 0}) == 0, "event");
    need(session.beginEvent(8, {kStart + 5, 0}, 0) != 0, "event");
    writePictures(&session, 50, 58);
    need(session.flush() == 0, session.errorText());
    // The image as of now, while the newest recording and an event are open.
    CDbLog::getInstance()->finish();
    std::string whole;
    FILE* card = fopen(kCardPath, "rb");
    need(card != nullptr, "read");
    whole.resize(static_cast<size_t>(request.sizeBytes));
    need(fread(whole.data(), 1, whole.size(), card) == whole.size(), "read");
    fclose(card);
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
  add(kVolume, 0, 512);
  add(kVolume, 6 * 512, 1024);
  add(kVolume, fats, 1024);
  add(kVolume, fats + fatBytes, 1024);
  add(kVolume, fats + 2 * fatBytes, 1024);
  add(kVolume, info.family(tarn::kFileInfo).startByte(), 1024);
  const std::pair<int, int> manage[] = {{tarn::kFileStreamManage, tarn::kFileStream},
                                        {tarn::kFileSyslogManage, tarn::kFileSyslog},
                                        {tarn::kFileJournalManage, tarn::kFileJournal}};
  for (const auto& [file, chunks] : manage) {
    const tarn::CardFamily& family = info.family(file);
    const uint32_t count = info.family(chunks).chunks;
    for (uint32_t copy = 0; copy < 2; ++copy) {
      add(kManage, family.startByte() + uint64_t{copy} * family.chunkSize,
          tarn::manageDataSize(count), Seal::kManage, count);
    }
  }
  const tarn::CardFamily& journal = info.family(tarn::kFileJournal);
  for (uint32_t chunk = 0; chunk < 4; ++chunk) {
    add(kJournal, journal.startByte() + uint64_t{chunk} * journal.chunkSize, 640, Seal::kJournal,
        chunk < 2 ? 32 : 64);
  }
  const tarn::CardFamily& pictures = info.family(tarn::kFilePicture);
  for (uint32_t chunk = 0; chunk < 2; ++chunk) {
    const uint64_t start = pictures.startByte() + uint64_t{chunk} * pictures.chunkSize;
    add(kPictures, start, 62 * tarn::kRecordSize, Seal::kEntry, tarn::kRecordSize);
    add(kPictures, start, 62 * tarn::kRecordSize, Seal::kHeader, tarn::kRecordSize);
  }
  add(kStreams, info.family(tarn::kFileStream).startByte(), 24 * kKiB);
  add(kLog, info.family(tarn::kFileSyslog).startByte(), 8 * kKiB);
  add(kImage, info.family(tarn::kFileDbImage).startByte(), 40 * kKiB);
}

void FuzzCard::put(uint64_t offset, const void* data, size_t length) {
  need(pwrite(fd_, data, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length),
       "write");
}

void FuzzCard::get(uint64_t offset, void* data, size_t length) {
  need(pread(fd_, data, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length),
       "read");
}

void FuzzCard::seal(const Region& region, uint32_t offset) {
  if (region.seal == Seal::kNone) return;
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
    const bool sealed = (data[5] & 0x10) != 0;
    size_t length = std::min<size_t>({size_t{data[5]} % 16 + 1, size - 6, region.size - offset});
    put(region.offset + offset, data + 6, length);
    if (sealed) seal(region, offset);
    data += 6 + length;
    size -= 6 + length;
    ++changes;
  }
  return changes;
}

// Walks the pages that are no holes.
template <typename Differs>
void FuzzCard::eachDifference(Differs differs) {
  char page[kPage];
  for (off_t at = 0; (at = lseek(fd_, at, SEEK_DATA)) >= 0; at += kPage) {
    at -= at % static_cast<off_t>(kPage);
    const auto offset = static_cast<size_t>(at);
    get(offset, page, kPage);
    if (memcmp(page, base_.data() + offset, kPage) != 0) differs(offset);
  }
}

bool FuzzCard::isGood() {
  bool good = true;
  eachDifference([&good](size_t) { good = false; });
  return good;
}

void FuzzCard::restore() {
  need(ftruncate(fd_, static_cast<off_t>(base_.size())) == 0, "size");
  eachDifference([this](size_t offset) { put(offset, base_.data() + offset, kPage); });
  removeAll("/tmp/DB.dat*");
  removeAll("/tmp/sd_err_mem_write");
}

}  // namespace tarn_fuzz
