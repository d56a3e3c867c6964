#include "media/mount/MovieFormats.h"

#include <cstring>

#include "media/FragmentedMovie.h"
#include "media/seal/BoxReader.h"
#include "media/seal/BoxWriter.h"

namespace tarn {
namespace {

constexpr const char* kWay[] = {"moov", "trak", "mdia", "minf", "stbl"};
constexpr int kTables = 5;  // what lies in the last of them
constexpr size_t kBoxHeader = 8;
constexpr size_t kListHeader = 8;  // version, flags, number of entries

// Of the box at hand, which is a list: its entries.
uint64_t countIn(const BoxReader& list) {
  return list.size() < kListHeader ? 0 : list.numberAt(list.begin() + 4, 4);
}

// Copies a movie's head, and what it changes with it.
class HeadWriter {
 public:
  HeadWriter(const std::vector<uint8_t>& head, const std::vector<std::vector<uint8_t>>& others,
             const std::vector<FormatStart>& starts)
      : head_(head), others_(others), starts_(starts) {}

  // The box that holds all others.
  bool write(size_t begin, size_t end) { return copy(begin, end, 0) && good_ && first_; }
  const std::vector<uint8_t>& all() const { return out_.all(); }

 private:
  void add(size_t begin, size_t end) {
    out_.bytes({head_.begin() + static_cast<ptrdiff_t>(begin),
                head_.begin() + static_cast<ptrdiff_t>(end)});
  }

  bool copy(size_t begin, size_t end, int depth) {
    if (depth == kTables) chunks_ = countChunks(begin, end);
    BoxReader boxes(head_.data(), begin, end);
    while (boxes.next()) {
      // The first track is that of pictures.
      const bool within = depth < kTables && boxes.is(kWay[depth]) && !(depth == 1 && first_);
      if (within) {
        out_.begin(kWay[depth]);
        if (!copy(boxes.begin(), boxes.end(), depth + 1)) return false;
        out_.end();
        first_ = first_ || depth == 1;
      } else if (depth == kTables && boxes.is("stsd")) {
        writeDescriptions(boxes);
      } else if (depth == kTables && boxes.is("stsc")) {
        writeRuns(boxes);
      } else {
        add(boxes.boxBegin(), boxes.end());
      }
    }
    return boxes.whole();
  }

  uint64_t countChunks(size_t begin, size_t end) const {
    BoxReader boxes(head_.data(), begin, end);
    while (boxes.next()) {
      if (boxes.is("stco") || boxes.is("co64")) return countIn(boxes);
    }
    return 0;
  }

  void writeDescriptions(const BoxReader& box) {
    good_ = good_ && countIn(box) == 1;
    out_.beginFull("stsd", 0);
    out_.u32(static_cast<uint32_t>(1 + others_.size()));
    add(box.begin() + kListHeader, box.end());
    for (const std::vector<uint8_t>& other : others_) out_.bytes(other);
    out_.end();
  }

  // Places with as many pictures as the one before, and decoded as these, are said once.
  void writeRuns(const BoxReader& box) {
    struct Run {
      uint32_t chunk, pictures, description;
    };
    std::vector<Run> runs;
    size_t start = 0;
    uint64_t picture = 0;
    const uint64_t count = countIn(box);
    if (box.size() < kListHeader + count * 12) good_ = false;
    for (uint64_t i = 0; good_ && i < count; ++i) {
      const size_t at = box.begin() + kListHeader + static_cast<size_t>(i) * 12;
      const uint64_t behind = i + 1 < count ? box.numberAt(at + 12, 4) : chunks_ + 1;
      const auto pictures = static_cast<uint32_t>(box.numberAt(at + 4, 4));
      for (uint64_t chunk = box.numberAt(at, 4); chunk < behind; ++chunk, picture += pictures) {
        while (start + 1 < starts_.size() && starts_[start + 1].picture <= picture) ++start;
        const uint32_t description = starts_[start].description + 1;
        if (runs.empty() || runs.back().pictures != pictures ||
            runs.back().description != description)
          runs.push_back({static_cast<uint32_t>(chunk), pictures, description});
        const bool within =
            start + 1 < starts_.size() && starts_[start + 1].picture < picture + pictures;
        good_ = good_ && !within;
      }
    }
    out_.beginFull("stsc", 0);
    out_.u32(static_cast<uint32_t>(runs.size()));
    for (const Run& run : runs) {
      out_.u32(run.chunk);
      out_.u32(run.pictures);
      out_.u32(run.description);
    }
    out_.end();
  }

  const std::vector<uint8_t>& head_;
  const std::vector<std::vector<uint8_t>>& others_;
  const std::vector<FormatStart>& starts_;
  BoxWriter out_;
  bool first_ = false;  // the first track is done
  uint64_t chunks_ = 0;
  bool good_ = true;
};

// The entry in the tables of a movie's head.
bool findEntry(const std::vector<uint8_t>& bytes, size_t begin, size_t end, int depth,
               std::vector<uint8_t>* entry) {
  BoxReader boxes(bytes.data(), begin, end);
  while (boxes.next()) {
    if (depth < kTables && boxes.is(kWay[depth]))
      return findEntry(bytes, boxes.begin(), boxes.end(), depth + 1, entry);
    if (depth < kTables || !boxes.is("stsd") || countIn(boxes) != 1) continue;
    entry->assign(bytes.begin() + static_cast<ptrdiff_t>(boxes.begin() + kListHeader),
                  bytes.begin() + static_cast<ptrdiff_t>(boxes.end()));
    return true;
  }
  return false;
}

}  // namespace

std::vector<uint8_t> sampleEntryOf(const OutputPicture& first, bool quickTime, std::string* error) {
  std::vector<uint8_t> bytes, entry;
  FragmentedMovie movie;
  FragmentedMovie::Plan plan;
  plan.quickTime = quickTime;
  const bool made = movie.open(plan,
                               [&bytes](const uint8_t* data, size_t size) {
                                 bytes.insert(bytes.end(), data, data + size);
                                 return true;
                               }) &&
                    movie.describe(0, first) && movie.begin();
  *error = movie.error();
  if (!made || !findEntry(bytes, 0, bytes.size(), 0, &entry)) return {};
  return entry;
}

bool describeFormats(const std::vector<std::vector<uint8_t>>& others,
                     const std::vector<FormatStart>& starts, std::vector<uint8_t>* head) {
  BoxReader boxes(head->data(), 0, head->size());
  while (boxes.next() && !boxes.is("moov")) {
  }
  if (boxes.boxBegin() == 0 || !boxes.is("moov")) return false;
  const size_t begin = boxes.boxBegin();
  HeadWriter writer(*head, others, starts);
  if (!writer.write(begin, boxes.end()) || !boxes.next() || !boxes.is("free")) return false;
  const size_t room = boxes.end() - begin;
  const std::vector<uint8_t>& written = writer.all();
  if (written.size() + kBoxHeader > room) return false;
  BoxWriter rest;
  rest.begin("free");
  rest.zeros(room - written.size() - kBoxHeader);
  rest.end();
  memcpy(head->data() + begin, written.data(), written.size());
  memcpy(head->data() + begin + written.size(), rest.all().data(), rest.all().size());
  return true;
}

}  // namespace tarn
