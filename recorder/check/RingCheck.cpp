// Where recordings lie in their chunks, against the addresses of the management file.
#include <algorithm>
#include <vector>

#include "base/Wrap.h"
#include "manager/ManageFormat.h"
#include "recorder/check/CardContents.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/recovery/NativeRows.h"

namespace tarn {
namespace {

// What a recording takes of an area.
struct Extent {
  uint32_t start;
  uint32_t length;
  const DB_STREAM* row;
};

// One area, picture or stream, of one chunk.
class RingCheck {
 public:
  RingCheck(CardContents* contents, uint32_t chunk, int fileType, uint32_t use, uint32_t free)
      : contents_(contents),
        chunk_(chunk),
        area_(fileType == kFilePicture ? "picture" : "stream"),
        size_(contents->card.family(fileType).chunkSize),
        use_(use),
        used_(size_ - ringFree(use, free, size_)) {}

  void run(std::vector<Extent> extents) {
    if (use_ >= size_) return;  // told with the management files
    std::sort(extents.begin(), extents.end(),
              [this](const Extent& a, const Extent& b) { return distance(a) < distance(b); });
    uint64_t end = 0;
    const DB_STREAM* before = nullptr;
    for (const Extent& extent : extents) {
      const uint64_t start = distance(extent);
      if (start + extent.length > used_) {
        say(*extent.row, "it lies outside what the " + std::string(area_) + " chunk " +
                             std::to_string(chunk_) +
                             " counts as used: a recording could begin over it");
      }
      if (before != nullptr && start < end) {
        say(*extent.row, "it and recording " + std::to_string(before->streamID) +
                             " overlap in the " + area_ + " chunk " + std::to_string(chunk_));
      }
      end = std::max(end, start + extent.length);
      before = extent.row;
    }
  }

 private:
  uint32_t distance(const Extent& extent) const {
    return extent.start >= use_ ? extent.start - use_ : size_ - use_ + extent.start;
  }

  void say(const DB_STREAM& row, const std::string& text) {
    CardFinding finding;
    finding.kind = FindingKind::kRing;
    finding.text = nameOf(row) + ": " + text;
    finding.streamID = row.streamID;
    finding.chunk = static_cast<int32_t>(chunk_);
    finding.from = row.startDate;
    finding.to = row.endDate;
    contents_->findings.add(finding);
  }

  CardContents* contents_;
  const uint32_t chunk_;
  const char* const area_;
  const uint32_t size_;
  const uint32_t use_;
  const uint32_t used_;
};

bool placed(const CardContents& contents, const DB_STREAM& row) {
  const CardFamily& pictures = contents.card.family(kFilePicture);
  return row.chunkOffset < pictures.chunkSize && row.chunkSize <= pictures.chunkSize;
}

void checkEmpty(CardContents* contents, uint32_t chunk, const CHUNK_MANAGE& record) {
  if (record.streamUseOffset == record.streamFreeOffset &&
      record.pictureUseOffset == record.pictureFreeOffset) {
    return;
  }
  CardFinding finding;
  finding.kind = FindingKind::kRing;
  finding.consequence = Consequence::kNone;
  finding.meaning = "nothing is lost: its room is just not used";
  finding.chunk = static_cast<int32_t>(chunk);
  finding.text = "chunk " + std::to_string(chunk) + " counts as used, but no recording lies in it";
  contents->findings.add(finding);
}

// Its addresses are those of a moment at which something else was wrong.
void noteGuarded(CardContents* contents, uint32_t chunk) {
  CardFinding finding;
  finding.kind = FindingKind::kRing;
  finding.consequence = Consequence::kUnknown;
  finding.meaning = "what it holds is kept: nothing is recorded into it";
  finding.chunk = static_cast<int32_t>(chunk);
  finding.text = "chunk " + std::to_string(chunk) +
                 " is guarded: a start would have given up its recordings for no good reason; "
                 "\"recover --accept\" gives them up";
  contents->findings.add(finding);
}

// A recorder that looks for a chunk with pictures goes by one of its rows.
void checkKinds(CardContents* contents, uint32_t chunk, const std::vector<const DB_STREAM*>& rows) {
  const bool sound = isSound(*rows.front());
  const auto other = std::find_if(rows.begin(), rows.end(),
                                  [sound](const DB_STREAM* row) { return isSound(*row) != sound; });
  if (other == rows.end()) return;
  CardFinding finding;
  finding.kind = FindingKind::kRing;
  finding.consequence = Consequence::kNone;
  finding.meaning = "nothing is lost by it";
  finding.chunk = static_cast<int32_t>(chunk);
  finding.streamID = (*other)->streamID;
  finding.text = "chunk " + std::to_string(chunk) + " holds both pictures and sound, of " +
                 nameOf(*rows.front()) + " and of " + nameOf(**other);
  contents->findings.add(finding);
}

void checkChunk(CardContents* contents, uint32_t chunk, const CHUNK_MANAGE& record,
                const std::vector<const DB_STREAM*>& rows) {
  if (isGuarded(record.chType)) return noteGuarded(contents, chunk);
  if (rows.empty()) return checkEmpty(contents, chunk, record);
  if (record.chType == kChannelUnused) {
    CardFinding finding;
    finding.kind = FindingKind::kRing;
    finding.chunk = static_cast<int32_t>(chunk);
    finding.text = "chunk " + std::to_string(chunk) + " counts as unused, but holds " +
                   nameOf(*rows.front()) + " and " + std::to_string(rows.size() - 1) + " more";
    return contents->findings.add(finding);
  }
  if (!isKept(*rows.front())) checkKinds(contents, chunk, rows);  // copies lie as they come
  std::vector<Extent> pictures;
  std::vector<Extent> data;
  const uint32_t streamSize = contents->card.family(kFileStream).chunkSize;
  for (const DB_STREAM* row : rows) {
    if (row->recSize == 0 || !placed(*contents, *row)) continue;  // told with the rows
    pictures.push_back({row->chunkOffset, row->chunkSize, row});
    uint8_t bytes[kRecordSize];
    StreamHeader header;
    if (contents->card.readChunk(kFilePicture, chunk, row->chunkOffset, bytes, sizeof bytes) &&
        decodeStreamHeader(bytes, &header) && header.version == kRecordVersion &&
        header.dataOffset < streamSize && header.dataSize < streamSize) {
      data.push_back({header.dataOffset, header.dataSize, row});
    }
  }
  RingCheck(contents, chunk, kFilePicture, record.pictureUseOffset, record.pictureFreeOffset)
      .run(pictures);
  RingCheck(contents, chunk, kFileStream, record.streamUseOffset, record.streamFreeOffset)
      .run(data);
}

}  // namespace

void checkRings(CardContents* contents) {
  const std::vector<CHUNK_MANAGE>& records =
      contents->card.info().management(kFileStreamManage).records;
  std::vector<std::vector<const DB_STREAM*>> rows(records.size());
  for (const auto& [key, row] : contents->streams) {
    if (row.chunkID < rows.size()) rows[row.chunkID].push_back(&row);
  }
  for (uint32_t chunk = 0; chunk < records.size(); ++chunk) {
    checkChunk(contents, chunk, records[chunk], rows[chunk]);
  }
}

}  // namespace tarn
