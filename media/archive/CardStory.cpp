#include "media/archive/CardStory.h"

#include <algorithm>
#include <map>
#include <set>

#include "fat/ChunkFiles.h"
#include "media/evidence/GapFinder.h"
#include "media/evidence/JournalExtract.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

int64_t beginOf(const DB_STREAM& row) {
  return PictureTime{row.startDate, row.startMSec * 1000u}.totalMicros();
}
int64_t endOf(const DB_STREAM& row) {
  return PictureTime{row.endDate, row.endMSec * 1000u}.totalMicros();
}

}  // namespace

bool CardStory::read(std::string* error) { return chunks_.read(error) == 0; }

void CardStory::readJournal() { JournalExtract(0, INT64_MAX, &journal_).read(); }

int CardStory::channelOf(const DB_STREAM& row) const {
  return isKept(row) ? keptChannel(row) : chunks_.of(row.chunkID);
}

std::vector<ArchiveLine> CardStory::linesOf(int channel,
                                            const std::vector<EvidenceGap>& gaps) const {
  std::vector<ArchiveLine> lines;
  for (const EvidenceGap& gap : gaps) {
    ArchiveLine line;
    line.kind = "gap";
    line.recorder = recorder_;
    line.channel = channel;
    line.startMs = gap.fromUs / 1000;
    line.endMs = gap.toUs / 1000;
    line.reason = gapReasonName(gap.reason);
    line.words = gap.text;
    lines.push_back(line);
  }
  return lines;
}

// Kept copies are what is left of a time that the ring has overwritten: around them nothing is
// missing that was not recorded.
std::vector<ArchiveLine> CardStory::gapsBetween(const std::vector<DB_STREAM>& rows) const {
  std::map<int, std::vector<const DB_STREAM*>> videoOf;
  for (const DB_STREAM& row : rows) {
    if (!isSound(row) && !isKept(row)) videoOf[channelOf(row)].push_back(&row);
  }
  std::vector<ArchiveLine> lines;
  for (auto& [channel, own] : videoOf) {
    std::sort(own.begin(), own.end(),
              [](const DB_STREAM* a, const DB_STREAM* b) { return beginOf(*a) < beginOf(*b); });
    GapFinder finder(channel, journal_, chunks_, nullptr);
    for (const DB_STREAM* row : own) {
      finder.recording(row);
      // One that runs is not over: nothing behind it is a gap.
      finder.stretch(beginOf(*row), row->recSize == 0 ? INT64_MAX : endOf(*row));
    }
    const std::vector<ArchiveLine> found = linesOf(channel, finder.take());
    lines.insert(lines.end(), found.begin(), found.end());
  }
  return lines;
}

std::vector<ArchiveLine> CardStory::gapsInside(const DB_STREAM& row) const {
  if (isSound(row) || row.recSize == 0) return {};
  GapFinder finder(channelOf(row), journal_, chunks_, nullptr);
  finder.beginAt(beginOf(row));
  finder.recording(&row);
  RecordingIndex index(row);
  RecordingReader reader;
  PictureEntry entry;
  if (reader.open(row) != 0) {
    StreamHeader header;
    finder.missing(index.header(&header));
  }
  for (uint32_t i = 0; reader.isOpen() && i < reader.pictureCount(); ++i) {
    if (reader.picture(i, &entry)) {
      finder.picture(entry.presentation.totalMicros());
    } else {
      finder.missing(index.entry(i, &entry));
    }
  }
  finder.endAt(endOf(row));
  return linesOf(channelOf(row), finder.take());
}

ArchiveLine CardStory::lineOf(const CardFinding& finding) const {
  ArchiveLine line;
  line.kind = "finding";
  line.recorder = recorder_;
  line.channel = finding.channel;
  line.key = finding.streamID;
  line.startMs = int64_t{finding.from} * 1000;
  line.endMs = int64_t{finding.to} * 1000;
  line.finding = findingKindName(finding.kind);
  line.consequence = consequenceName(finding.consequence);
  line.words = finding.text;
  line.meaning = finding.meaning;
  return line;
}

bool CardStory::findings(const std::vector<DB_STREAM>& rows, const std::vector<DB_EVENT>& events,
                         bool whole, const StopAsked& stopAsked, std::vector<ArchiveLine>* lines,
                         std::string* error) const {
  CardCheckOptions options;
  options.wholePictures = whole;
  options.progress = [&](uint64_t /*done*/, uint64_t /*total*/) {
    return !stopAsked || !stopAsked();
  };
  CardCheck check;
  if (check.runOn(deviceName(kRecorderPartition), rows, events, options, error) != 0) return false;
  for (const CardFinding& finding : check.findings().list()) lines->push_back(lineOf(finding));
  return true;
}

bool CardStory::cardFindings(int64_t ms, std::vector<ArchiveLine>* lines,
                             std::string* error) const {
  CardCheck first;
  CardCheck again;
  const std::string device = deviceName(kRecorderPartition);
  if (first.runAround(device, error) != 0) return false;
  if (first.findings().list().empty()) return true;
  if (again.runAround(device, error) != 0) return false;
  std::set<std::string> still;
  for (const CardFinding& finding : again.findings().list()) still.insert(finding.text);
  for (const CardFinding& finding : first.findings().list()) {
    if (still.count(finding.text) == 0) continue;
    ArchiveLine line = lineOf(finding);
    line.startMs = line.endMs = ms;
    lines->push_back(line);
  }
  return true;
}

}  // namespace tarn
