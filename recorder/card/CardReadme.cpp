#include "recorder/card/CardReadme.h"

#include "base/Endian.h"
#include "fat/FatFormat.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr char kText[] =
    "THIS IS THE CARD OF A VIDEO RECORDER\r\n"
    "\r\n"
    "It holds video, sound and a log, in files that the recorder made in advance\r\n"
    "and fills in turn. They are no movies: a player makes nothing of them.\r\n"
    "\r\n"
    "Please do not\r\n"
    "- delete, rename, move or copy files onto this card,\r\n"
    "- let a PC repair or format it, even where it offers to:\r\n"
    "  recordings would be lost.\r\n"
    "If the card may matter to somebody, slide its write protection on first.\r\n"
    "\r\n"
    "The program \"tarn\" (package tarn-tools) shows what is recorded:\r\n"
    "\r\n"
    "  tarn list CARD --read-only                what there is\r\n"
    "  tarn serve CARD --read-only               all of it in a browser\r\n"
    "  tarn mount CARD DIR --read-only           as folders of movies\r\n"
    "  tarn export CARD --read-only --from TIME --to TIME -o OUT.mp4\r\n"
    "  tarn check CARD                           whether anything is wrong with it\r\n"
    "\r\n"
    "CARD is the card's device, an image of it, or a folder with a copy of all its\r\n"
    "files. With --read-only not a byte of the card changes. Whoever looks after\r\n"
    "the recorder has the program, or knows who has.\r\n";

uint64_t clustersEnd(const CardLayout& layout) {
  return layout.dataByte() + uint64_t{layout.clusters()} * layout.clusterBytes();
}

// The directory's end must still show.
bool hasEntry(const CardLayout& layout) {
  return (uint64_t{layout.rootEntries()} + 2) * kDirEntryBytes <= layout.rootBytes();
}

}  // namespace

const std::string& readmeText() {
  static const std::string text = kText;
  return text;
}

// The first gap between directory and chunks: families begin on larger boundaries than clusters do.
ReadmePlace placeOfReadme(const CardLayout& layout) {
  const uint64_t clusterBytes = layout.clusterBytes();
  const uint64_t clusters = (readmeText().size() + clusterBytes - 1) / clusterBytes;
  uint64_t end = layout.dataByte() + layout.rootBytes();
  if (!hasEntry(layout)) return {};
  for (int type = 0; type <= kFileTypeCount; ++type) {
    const bool last = type == kFileTypeCount;
    const uint64_t next = last ? clustersEnd(layout) : layout.family(type).startByte();
    if (end + clusters * clusterBytes <= next) return {end, static_cast<uint32_t>(clusters)};
    if (!last) end = next + layout.family(type).bytes();
  }
  return {};
}

void linkReadme(const CardLayout& layout, uint32_t first, uint32_t count, uint8_t* out) {
  const ReadmePlace place = placeOfReadme(layout);
  if (place.byte == 0) return;
  const uint32_t begin = layout.clusterOfByte(place.byte);
  for (uint32_t i = 0; i < place.clusters; ++i) {
    const uint32_t cluster = begin + i;
    const uint32_t next = i + 1 == place.clusters ? kFatEntryMask : cluster + 1;
    if (cluster >= first && cluster - first < count) putLe32(out + (cluster - first) * 4, next);
  }
}

void enterReadme(const CardLayout& layout, time_t when, uint8_t* root) {
  const ReadmePlace place = placeOfReadme(layout);
  if (place.byte == 0) return;
  // "README.TXT" without its dot.
  encodeFileEntry("README  TXT", when, layout.clusterOfByte(place.byte),
                  static_cast<uint32_t>(readmeText().size()),
                  root + size_t{layout.rootEntries()} * kDirEntryBytes);
}

}  // namespace tarn
