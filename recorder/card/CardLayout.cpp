#include "recorder/card/CardLayout.h"

#include <algorithm>
#include <cstdio>

#include "chunk/LogChunks.h"
#include "chunk/StreamHeaderFormat.h"
#include "dblog/JournalFormat.h"
#include "fat/FatFormat.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardText.h"
#include "recorder/card/FamilyRules.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr uint32_t kMinReservedSectors = 32;  // the info file's second copy lies in them
constexpr uint32_t kMinInfoBytes = 1024;
constexpr uint32_t kRootCluster = 2;
constexpr uint32_t kMaxClusterBytes = 65536;
// PCs disagree on the exact bounds between FAT16 and FAT32; what is chosen here stays clear of
// them.
constexpr uint32_t kClusterMargin = 16;
constexpr uint64_t kManyChunks = 8192;
constexpr uint64_t kLargestPower = 1024 * kMiB;
constexpr uint64_t kChunkSizeLimit = uint64_t{kMaxChunkBytes} + 1;
constexpr uint32_t kShortNames = 10000;  // a tag and four digits fit 8.3
constexpr uint32_t kFixedEntries = 1;    // the volume label

uint64_t roundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Largest power of two that is not above value; 1 for 0.
uint64_t powerBelow(uint64_t value) {
  uint64_t power = 1;
  while (power * 2 <= value) power *= 2;
  return power;
}

bool fail(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

std::string familyText(int type) { return CardLayout::familyName(type); }

const CardProfile* findProfile(const std::string& name) {
  for (const CardProfile& profile : CardLayout::profiles()) {
    if (name == profile.name) return &profile;
  }
  return nullptr;
}

// Journals hold a record for every row ever inserted, so they grow with the card up to their limit:
// 1 MiB at 256 MiB, the full 12 MiB from 3 GiB on.
uint64_t journalSizeFor(uint64_t cardBytes) {
  const uint64_t wanted = cardBytes / 256;
  if (wanted >= kMaxJournalBytes) return kMaxJournalBytes;
  return std::max(powerBelow(wanted), uint64_t{CardLayout::kAlignBytes});
}

uint64_t syslogSizeFor(uint64_t cardBytes) {
  return std::clamp(powerBelow(cardBytes / 1024), uint64_t{CardLayout::kAlignBytes}, 4 * kMiB);
}

uint64_t manageSizeFor(uint32_t chunks) {
  return roundUp(manageDataSize(chunks), CardLayout::kAlignBytes);
}

bool countIsFixed(int type) { return type == kFileInfo || isManagement(type); }

// A request's numbers must fit the info file's before anything is computed from them.
bool checkRequest(const CardRequest& request, std::string* error) {
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamilyRequest& wanted = request.families[static_cast<size_t>(type)];
    if (wanted.chunkSize > kMaxChunkBytes) {
      return fail(error, familyText(type) + " chunk size " + std::to_string(wanted.chunkSize) +
                             " must be below 2 GiB");
    }
    if (wanted.chunks > CardLayout::kMaxChunks) {
      return fail(error, std::to_string(wanted.chunks) + " " + familyText(type) +
                             " chunks: a family has at most 32767");
    }
  }
  const uint64_t streams = request.families[kFileStream].chunks;
  const uint64_t pictures = request.families[kFilePicture].chunks;
  if (streams != 0 && pictures != 0 && streams != pictures) {
    return fail(error, "there must be as many picture chunks as stream chunks, not " +
                           std::to_string(pictures) + " and " + std::to_string(streams));
  }
  return true;
}

}  // namespace

const std::vector<CardProfile>& CardLayout::profiles() {
  static const std::vector<CardProfile> kProfiles = {
      {"default", "a dozen stream chunks or more, up to 256 MiB each", 12, 256 * kMiB, 2048},
      {"many", "many smaller stream chunks, for recorders with many channels", 48, 64 * kMiB, 2048},
      {"long", "few large stream chunks, up to 1 GiB each", 6, 1024 * kMiB, 2048},
      {"small-pictures", "as default, with picture chunks for pictures down to 512 bytes", 12,
       256 * kMiB, 512},
  };
  return kProfiles;
}

const char* CardLayout::familyName(int fileType) {
  static constexpr const char* kNames[kFileTypeCount] = {
      "info",   "journal management", "journal",           "syslog management",
      "syslog", "database image",     "stream management", "stream",
      "picture"};
  return fileType >= 0 && fileType < kFileTypeCount ? kNames[fileType] : "";
}

int CardLayout::plan(const CardRequest& request, std::string* error) {
  return orNoMemory(
      "CardLayout",
      [&]() -> int {
        *this = CardLayout();
        const bool good = checkRequest(request, error) && planVolume(request, error) &&
                          planSmallFamilies(request, error) && planStreams(request, error) &&
                          check(error);
        return good ? 0 : -1;
      },
      [&]() -> int { return memoryOut(error); });
}

// Sectors, cluster size and FATs.
bool CardLayout::planVolume(const CardRequest& request, std::string* error) {
  const uint64_t sectors = request.sizeBytes / kSectorBytes;
  if (sectors > 0xFFFFFFFFu) {
    return fail(error, "the card is too large: FAT32 ends at 2 TiB; give a smaller size");
  }
  totalSectors_ = static_cast<uint32_t>(sectors);
  const uint32_t wanted = request.clusterBytes;
  if (wanted == 0) {
    for (uint32_t bytes = 32 * kKiB; bytes >= kSectorBytes; bytes /= 2) {
      if (planClusters(bytes) && clusters_ >= kMinClusters + kClusterMargin &&
          clusters_ <= kMaxClusters - kClusterMargin) {
        return true;
      }
    }
    return fail(error, "the card is too small: FAT32 needs at least 33 MiB, this one has " +
                           sizeText(request.sizeBytes));
  }
  if (wanted < kSectorBytes || wanted > kMaxClusterBytes || (wanted & (wanted - 1)) != 0) {
    return fail(error, "cluster size " + std::to_string(wanted) +
                           " must be a power of two from 512 to 65536 bytes");
  }
  if (!planClusters(wanted) || clusters_ < kMinClusters || clusters_ > kMaxClusters) {
    return fail(error, "clusters of " + std::to_string(wanted) + " bytes do not suit a card of " +
                           sizeText(request.sizeBytes) + ": they would make " +
                           std::to_string(clusters_) + ", and FAT32 needs 65525 to 268435444");
  }
  return true;
}

// The reserved sectors are as many as it takes to begin the data region on an aligned byte.
bool CardLayout::planClusters(uint32_t clusterBytes) {
  const uint32_t perCluster = clusterBytes / kSectorBytes;
  const uint64_t atMost = totalSectors_ / perCluster + 2;
  const uint64_t fat = (atMost * 4 + kSectorBytes - 1) / kSectorBytes;
  const uint64_t data = roundUp(kMinReservedSectors + 2 * fat, kAlignBytes / kSectorBytes);
  clusters_ = 0;
  if (data >= totalSectors_) return false;
  clusterBytes_ = clusterBytes;
  fatSectors_ = static_cast<uint32_t>(fat);
  reservedSectors_ = static_cast<uint32_t>(data - 2 * fat);
  clusters_ = static_cast<uint32_t>((totalSectors_ - data) / perCluster);
  return true;
}

// Everything but streams and pictures.
bool CardLayout::planSmallFamilies(const CardRequest& request, std::string* error) {
  const auto asked = [&](int type) { return request.families[static_cast<size_t>(type)]; };
  const auto take = [&](int type, uint64_t size, uint64_t chunks) {
    CardFamily& family = families_[static_cast<size_t>(type)];
    family.chunkSize = static_cast<uint32_t>(asked(type).chunkSize ? asked(type).chunkSize : size);
    family.chunks = static_cast<uint32_t>(asked(type).chunks ? asked(type).chunks : chunks);
  };
  const uint64_t journal = journalSizeFor(request.sizeBytes);
  take(kFileInfo, kAlignBytes, 1);
  take(kFileJournal, journal, leastChunks(kFileJournal));
  take(kFileJournalManage, manageSizeFor(family(kFileJournal).chunks), 2);
  take(kFileSyslog, syslogSizeFor(request.sizeBytes), kLogChunks);
  take(kFileSyslogManage, manageSizeFor(family(kFileSyslog).chunks), 2);
  // Room for every row that the journals can bring back, with its indexes.
  take(kFileDbImage, std::max(kMiB, 4 * journal), 1);
  take(kFileStreamManage, kAlignBytes, 2);
  ownManageSize_ = asked(kFileStreamManage).chunkSize == 0;
  for (int type = 0; type < kFileStream; ++type) {
    if (!checkFamily(type, error)) return false;
  }
  return true;
}

bool CardLayout::planStreams(const CardRequest& request, std::string* error) {
  const CardProfile* profile = findProfile(request.profile);
  if (profile == nullptr) {
    std::string names;
    for (const CardProfile& known : profiles()) names += std::string(" ") + known.name;
    return fail(error, "there is no profile \"" + request.profile + "\"; known:" + names);
  }
  const CardFamilyRequest& stream = request.families[kFileStream];
  const CardFamilyRequest& picture = request.families[kFilePicture];
  const auto wanted = static_cast<uint32_t>(stream.chunks ? stream.chunks : picture.chunks);

  chooseStreamSize(request, *profile, wanted);
  if (!checkFamily(kFileStream, error) || !checkFamily(kFilePicture, error)) return false;
  const uint32_t most = mostStreams();
  if (most == 0 || wanted > most) {
    return fail(error, "the card is too small: " + sizeText(sizeBytes()) + " hold " +
                           std::to_string(most) + " stream chunks of " +
                           sizeText(family(kFileStream).chunkSize) + " with their picture chunks" +
                           (wanted ? ", not " + std::to_string(wanted) : std::string()));
  }
  endByte_ = place(wanted ? wanted : most);
  return true;
}

// A given size stays; else a given number of chunks shares the room; else the largest power of two
// that gives as many chunks as the profile asks for.
void CardLayout::chooseStreamSize(const CardRequest& request, const CardProfile& profile,
                                  uint32_t chunks) {
  CardFamily& stream = families_[kFileStream];
  CardFamily& picture = families_[kFilePicture];
  const auto set = [&](uint64_t size) {
    stream.chunkSize = static_cast<uint32_t>(size);
    picture.chunkSize = pictureSizeFor(request, profile, size);
  };
  if (request.families[kFileStream].chunkSize != 0) {
    set(request.families[kFileStream].chunkSize);
  } else if (chunks != 0) {
    const uint64_t room = limitByte() / chunks / kAlignBytes * kAlignBytes;
    uint64_t size = std::clamp(room, uint64_t{kAlignBytes}, kChunkSizeLimit - kAlignBytes);
    set(size);
    while (size > kAlignBytes && mostStreams() < chunks) {
      // Large steps down while far off, then single ones.
      size -= std::max(uint64_t{kAlignBytes}, size / 256 / kAlignBytes * kAlignBytes);
      set(size);
    }
  } else {
    uint64_t size = profile.streamChunkMax;
    // Above that many, larger chunks: names stay short and the directory small.
    while (size < kLargestPower && limitByte() / size > kManyChunks) size *= 2;
    set(size);
    while (size > kAlignBytes && mostStreams() < profile.streamChunks) set(size /= 2);
  }
}

uint32_t CardLayout::pictureSizeFor(const CardRequest& request, const CardProfile& profile,
                                    uint64_t streamSize) const {
  const uint64_t asked = request.families[kFilePicture].chunkSize;
  if (asked != 0) return static_cast<uint32_t>(asked);
  return static_cast<uint32_t>(
      roundUp(streamSize / profile.bytesPerPicture * kPictureRecordSize, kAlignBytes));
}

// The most stream chunks, each with its picture chunk, that the card and its directory hold.
uint32_t CardLayout::mostStreams() const {
  CardLayout trial = *this;
  const uint64_t pair = uint64_t{family(kFileStream).chunkSize} + family(kFilePicture).chunkSize;
  uint64_t count = std::min(uint64_t{kMaxChunks}, limitByte() / pair);
  // Each miss tells how far off it is; the directory and the management files shrink along.
  while (count > 0) {
    const uint64_t end = trial.place(static_cast<uint32_t>(count));
    if (end <= limitByte()) break;
    const uint64_t excess = (end - limitByte() + pair - 1) / pair;
    count -= std::min(count, excess);
  }
  return static_cast<uint32_t>(count);
}

// Lays everything out behind each other for a number of stream chunks; returns the end.
uint64_t CardLayout::place(uint32_t streams) {
  families_[kFileStream].chunks = streams;
  families_[kFilePicture].chunks = streams;
  if (ownManageSize_) {
    families_[kFileStreamManage].chunkSize = static_cast<uint32_t>(manageSizeFor(streams));
  }
  rootEntries_ = kFixedEntries;
  for (const CardFamily& family : families_) rootEntries_ += entriesOf(family.chunks);
  // One entry more stays zero: the end of the directory.
  rootBytes_ = roundUp((uint64_t{rootEntries_} + 1) * kDirEntryBytes, clusterBytes_);

  uint64_t next = dataByte() + rootBytes_;
  for (CardFamily& family : families_) {
    next = roundUp(next, kAlignBytes);
    family.startSector = static_cast<uint32_t>(next / kSectorBytes);
    next += family.bytes();
  }
  return next;
}

// Names above 9999 do not fit 8.3 and take a second entry for the long name.
uint32_t CardLayout::entriesOf(uint32_t chunks) const {
  return chunks + (chunks > kShortNames ? chunks - kShortNames : 0);
}

bool CardLayout::checkFamily(int fileType, std::string* error) const {
  const CardFamily& family = families_[static_cast<size_t>(fileType)];
  const std::string what = familyText(fileType) + " chunk size " + std::to_string(family.chunkSize);
  const auto multipleOf = [&](uint32_t unit, const char* why) {
    return family.chunkSize % unit == 0 ||
           fail(error, what + " is not a multiple of " + std::to_string(unit) + why);
  };
  if (!multipleOf(clusterBytes_, ", the cluster size")) return false;
  if (fileType == kFileInfo && family.chunkSize < kMinInfoBytes) {
    return fail(error, what + " is below 1024, which the info file takes");
  }
  if (fileType == kFileStream && !multipleOf(kAlignBytes, "")) return false;
  if (fileType == kFilePicture && !multipleOf(kPictureRecordSize, "")) return false;
  if (fileType == kFileSyslog) {
    if (!multipleOf(kLogBlockBytes, "")) return false;
    if (family.chunkSize < kLogLeastChunkBytes) {
      return fail(error, what + " is too small: a log needs at least " +
                             std::to_string(kLogLeastChunkBytes));
    }
  }
  if (fileType == kFileJournal) {
    if (!multipleOf(kStreamRecordSize, "")) return false;
    if (family.chunkSize > kMaxJournalBytes) return fail(error, what + " is above 12 MiB");
  }
  if (fileType < kFileStream) {
    const uint32_t least = leastChunks(fileType);
    if (family.chunks < least || (countIsFixed(fileType) && family.chunks != least)) {
      return fail(error, "there must be " + std::string(countIsFixed(fileType) ? "" : "at least ") +
                             std::to_string(least) + " " + familyText(fileType) + " chunks, not " +
                             std::to_string(family.chunks));
    }
  }
  return true;
}

// What depends on where everything came to lie.
bool CardLayout::check(std::string* error) const {
  for (int type : {kFileJournalManage, kFileSyslogManage, kFileStreamManage}) {
    const uint32_t needed = manageDataSize(family(managedBy(type)).chunks);
    if (needed > family(type).chunkSize) {
      return fail(error, familyText(type) + " chunk size " +
                             std::to_string(family(type).chunkSize) +
                             " is too small: " + std::to_string(family(managedBy(type)).chunks) +
                             " " + familyText(managedBy(type)) + " chunks need " +
                             std::to_string(needed) + " bytes");
    }
  }
  if (rootEntries_ > kMaxDirectoryEntries) {
    return fail(error, "too many chunk files: a directory has room for 65536 entries, these need " +
                           std::to_string(rootEntries_) + "; choose larger chunks or fewer");
  }
  const uint32_t infoCluster = clusterOfByte(family(kFileInfo).startByte());
  if ((infoCluster & 0xFFFF) >= 0x8000) {
    return fail(error, "the info file's first cluster " + std::to_string(infoCluster) +
                           " cannot be found again: its low half must be below 32768");
  }
  return true;
}

uint64_t CardLayout::chunkByte(int fileType, uint32_t chunk) const {
  return family(fileType).startByte() + uint64_t{chunk} * family(fileType).chunkSize;
}

uint32_t CardLayout::clusterOfByte(uint64_t byte) const {
  return static_cast<uint32_t>((byte - dataByte()) / clusterBytes_) + kRootCluster;
}

uint32_t CardLayout::usedClusters() const {
  uint64_t bytes = rootBytes_;
  for (const CardFamily& family : families_) bytes += family.bytes();
  return static_cast<uint32_t>(bytes / clusterBytes_);
}

}  // namespace tarn
