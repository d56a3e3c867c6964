#include "recorder/card/CardRepair.h"

#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "base/FileSync.h"
#include "recorder/card/CardBytes.h"
#include "recorder/card/CardLock.h"
#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/NoThrow.h"
#include "recorder/card/RepairPlan.h"
#include "recorder/card/UndoFile.h"

namespace tarn {
namespace {

using Bytes = std::vector<uint8_t>;

bool writeAll(int fd, uint64_t offset, const Bytes& all, std::string* error) {
  uint64_t failedByte = 0;
  if (writeFully(fd, offset, all.data(), all.size(), &failedByte)) return true;
  *error = errnoText("writing to the card failed at byte " + std::to_string(failedByte), errno);
  return false;
}

bool flushCard(int fd, std::string* error) {
  if (syncFile(fd) == 0) return true;
  *error = errnoText("flushing the card failed", errno);
  return false;
}

uint64_t sizeOfCard(const std::string& path) {
  CardBytes card;
  std::string ignored;
  return card.open(path, &ignored) == 0 ? card.size() : 0;
}

// For the public functions, which do not throw.
template <typename Work>
int guarded(std::string* error, Work work) {
  const auto patient = [&]() -> int {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      *error = "no memory left";
      return -1;
    }
  };
  return orNoMemory("CardRepair", patient, [&]() -> int { return memoryOut(error); });
}

// What stands in the places of the steps, and what shall stand there.
bool collect(const CardLock& card, const std::string& path,
             const std::vector<CardRepair::Step>& steps, UndoFile* undo, std::string* error) {
  for (const CardRepair::Step& step : steps) {
    for (const auto& [offset, bytes] : step.changes) {
      UndoFile::Piece piece{offset, Bytes(bytes.size()), bytes};
      if (!readFully(card.fd(), offset, piece.before.data(), piece.before.size())) {
        *error = errnoText(path + " cannot be read", errno);
        return false;
      }
      undo->pieces.push_back(std::move(piece));
    }
  }
  return true;
}

// Whether the card is still as it was before or behind the repair.
bool isUnchanged(const CardLock& card, const std::string& path, const UndoFile& undo,
                 std::string* error) {
  for (const UndoFile::Piece& piece : undo.pieces) {
    Bytes present(piece.before.size());
    if (!readFully(card.fd(), piece.offset, present.data(), present.size())) {
      *error = errnoText(path + " cannot be read", errno);
      return false;
    }
    if (present == piece.after || present == piece.before) continue;
    *error = path + " was changed since at byte " + std::to_string(piece.offset) +
             "; nothing was written";
    return false;
  }
  return true;
}

int makePlan(const std::string& path, std::vector<CardRepair::Step>* steps, std::string* error) {
  CardBytes card;
  if (card.open(path, error) != 0) return -1;
  RepairPlan plan(&card, path);
  if (plan.run(error) != 0) return -1;
  *steps = plan.takeSteps();
  error->clear();
  return 0;
}

int writeSteps(const std::string& path, const std::vector<CardRepair::Step>& steps,
               const std::string& undoFile, std::string* error) {
  if (steps.empty()) return 0;
  CardLock card;
  if (card.acquire(path, false, error) != 0) return -1;
  UndoFile undo;
  undo.cardBytes = sizeOfCard(path);
  if (!collect(card, path, steps, &undo, error) || undo.save(undoFile, error) != 0) return -1;
  for (const UndoFile::Piece& piece : undo.pieces) {
    if (!writeAll(card.fd(), piece.offset, piece.after, error)) return -1;
  }
  return flushCard(card.fd(), error) ? 0 : -1;
}

int takeBack(const std::string& path, const std::string& undoFile, std::string* error) {
  UndoFile undo;
  CardLock card;
  if (undo.load(undoFile, error) != 0 || card.acquire(path, false, error) != 0) return -1;
  const uint64_t size = sizeOfCard(path);
  if (undo.cardBytes != size) {
    *error = undoFile + " belongs to a card of " + std::to_string(undo.cardBytes) + " bytes, " +
             path + " has " + std::to_string(size);
    return -1;
  }
  if (!isUnchanged(card, path, undo, error)) return -1;
  // A place may have been changed twice: what was there first comes back last.
  for (auto piece = undo.pieces.rbegin(); piece != undo.pieces.rend(); ++piece) {
    if (!writeAll(card.fd(), piece->offset, piece->before, error)) return -1;
  }
  return flushCard(card.fd(), error) ? 0 : -1;
}

}  // namespace

int CardRepair::plan(const std::string& path, std::string* error) {
  return guarded(error, [&] {
    path_ = path;
    steps_.clear();
    return makePlan(path_, &steps_, error);
  });
}

int CardRepair::apply(const std::string& undoFile, std::string* error) {
  return guarded(error, [&] { return writeSteps(path_, steps_, undoFile, error); });
}

int CardRepair::undo(const std::string& path, const std::string& undoFile, std::string* error) {
  return guarded(error, [&] { return takeBack(path, undoFile, error); });
}

}  // namespace tarn
