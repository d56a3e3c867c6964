#include "OriginalCard.h"

#include <filesystem>
#include <vector>

#include "CardContent.h"
#include "EwfOriginal.h"
#include "FileOriginal.h"
#include "FolderOriginal.h"
#include "PartOriginal.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

using Partition = PartitionTable::Partition;

bool isFolder(const std::string& path) {
  std::error_code fault;
  return std::filesystem::is_directory(path, fault);
}

bool isDevice(const std::string& path) {
  std::error_code fault;
  return std::filesystem::is_block_file(path, fault);
}

// A look at one partition. The whole stays where it is.
CardContent contentOf(CardOriginal* whole, const Partition& partition) {
  struct Window : CardOriginal {
    Window(CardOriginal* device, const Partition& part) : whole(device), place(part) {}
    uint64_t size() const override { return place.bytes; }
    bool read(uint64_t offset, void* out, size_t length) override {
      return offset <= place.bytes && length <= place.bytes - offset &&
             whole->read(place.firstByte + offset, out, length);
    }
    CardOriginal* whole;
    const Partition& place;
  };
  Window window(whole, partition);
  return CardContent::look(&window);
}

std::string describe(const Partition& partition, const std::string& content) {
  return "partition " + std::to_string(partition.number) + " (" + sizeText(partition.bytes) +
         " from byte " + std::to_string(partition.firstByte) + " on) holds " + content;
}

}  // namespace

std::string OriginalCard::whyOverlaid(const std::string& path) {
  if (isFolder(path)) return "it is a folder";
  std::string ignored;
  const std::unique_ptr<FileOriginal> file = FileOriginal::open(path, &ignored);
  if (file == nullptr) return "";
  if (CardContent::isExpertWitness(file.get())) return "it is an Expert Witness image";
  if (CardContent::look(file.get()).isCard()) return "";
  if (PartitionTable::read(file.get()).kind() == PartitionTable::Kind::kNone) return "";
  return isDevice(path) ? "it is a whole device" : "it is an image of a whole device";
}

std::string OriginalCard::foreignContent(const std::string& path) {
  std::string ignored;
  const std::unique_ptr<FileOriginal> file = FileOriginal::open(path, &ignored);
  if (file == nullptr) return "";
  const CardContent content = CardContent::look(file.get());
  return content.isForeign() ? content.words() : "";
}

std::string OriginalCard::otherContent(const std::string& path) {
  std::string ignored;
  const std::unique_ptr<FileOriginal> file = FileOriginal::open(path, &ignored);
  if (file == nullptr) return "";
  const CardContent content = CardContent::look(file.get());
  return content.isCard() ? "" : content.words();
}

bool OriginalCard::open(const std::string& path, int partition, std::string* error) {
  return openWhole(path, error) && choose(path, partition, error);
}

bool OriginalCard::openWhole(const std::string& path, std::string* error) {
  isFolder_ = isFolder(path);
  if (isFolder_) {
    card_ = FolderOriginal::open(path, &note_, error);
    return card_ != nullptr;
  }
  card_ = FileOriginal::open(path, error);
  if (card_ != nullptr && CardContent::isExpertWitness(card_.get())) {
    card_ = EwfOriginal::open(path, &note_, error);
  }
  return card_ != nullptr;
}

bool OriginalCard::choose(const std::string& path, int partition, std::string* error) {
  const CardContent content = CardContent::look(card_.get());
  const bool whole = isFolder_ || content.isCard();
  if (partition == 0 && whole) return true;
  const PartitionTable table = whole ? PartitionTable() : PartitionTable::read(card_.get());
  if (table.partitions().empty()) {
    *error = path + (partition != 0 ? " has no partitions" : " is no card of the recorder") +
             ": it holds " + (isFolder_ ? "a card's files" : content.words());
    return false;
  }
  std::string all;
  std::vector<const Partition*> cards;
  const Partition* numbered = nullptr;
  for (const Partition& one : table.partitions()) {
    const CardContent held = contentOf(card_.get(), one);
    all += (all.empty() ? "" : "; ") + describe(one, held.words());
    if (one.number == partition) numbered = &one;
    if (held.isCard() && (partition == 0 || one.number == partition)) cards.push_back(&one);
  }
  if (cards.size() == 1) {
    take(path, *cards[0]);
    return true;
  }
  *error = path;
  if (cards.size() > 1) {
    *error += " holds several cards, and --partition N chooses one";
  } else if (partition != 0 && numbered == nullptr) {
    *error += " has no partition " + std::to_string(partition);
  } else {
    *error += " holds no card of the recorder there";
  }
  *error += ": " + all;
  return false;
}

void OriginalCard::take(const std::string& path, const Partition& partition) {
  note_ += (note_.empty() ? "" : "; ") + path + ": " + describe(partition, "the card");
  card_ = std::make_unique<PartOriginal>(std::move(card_), partition.firstByte, partition.bytes);
}

}  // namespace tarn
