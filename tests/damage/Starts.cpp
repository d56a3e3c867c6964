#include "damage/Starts.h"

#include <cstring>

#include "powercut/Checks.h"
#include "recorder/card/CardInfo.h"
#include "recorder/recording/RecordingReader.h"

using namespace powercut;

namespace damage {

Starts::Starts(const SmallCard& card) : card_(card) {
  for (const auto& [key, numbers] : card.pictures) {
    for (const uint32_t number : numbers)
      known_[number] = {pictureBytes(number), pictureTime(number)};
  }
}

Seen Starts::make(const ReadFault* fault) const {
  Seen seen;
  seen.error = bootCard().error;
  if (!seen.error.empty()) return seen;
  seen.streams = listStreams();
  seen.events = listEvents();
  // What the card holds, not what it would give now.
  Card::get().refuse(nullptr);
  seen.management = managementText();
  seen.logEnds = logEnds();
  tarn::CardInfo info;
  if (info.read(kCardPath, &seen.error) == 0)
    seen.chunks = info.management(tarn::kFileStreamManage).records;
  Card::get().refuse(fault);
  return seen;
}

Seen Starts::start(const ReadFault* fault, Again again) {
  if (fault != nullptr) return make(fault);
  Card& card = Card::get();
  const Sum before = sum();
  const auto made = made_.find(before);
  if (made != made_.end()) {
    for (const auto& [sector, bytes] : made->second.sectors)
      card.put(sector * kSector, bytes.data(), bytes.size());
    return made->second.seen;
  }
  const size_t moment = card.moment();
  Seen seen = make(nullptr);
  // One that writes outside is not to be missed by a later case.
  if (again == Again::kUnlikely || card.hasStray()) return seen;
  Made& kept = made_[before];
  kept.seen = seen;
  for (const uint64_t sector : card.changedSince(moment)) {
    const uint8_t* bytes = card.bytes() + sector * kSector;
    kept.sectors.emplace_back(sector, std::vector<uint8_t>(bytes, bytes + kSector));
  }
  return seen;
}

std::vector<PictureFound> Starts::read(const DB_STREAM& now, uint32_t count) const {
  tarn::RecordingReader reader;
  if (reader.open(now) != 0) return {};
  const std::vector<uint32_t>& numbers = card_.pictures.at(now.streamID);
  std::vector<PictureFound> found;
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < count; ++i) {
    const Known& known = known_.at(numbers.at(i));
    tarn::PictureEntry entry;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes)) {
      found.push_back(PictureFound::kNone);
    } else if (entry.presentation == known.time && bytes == known.bytes) {
      found.push_back(PictureFound::kGood);
    } else {
      found.push_back(reader.isDamaged() ? PictureFound::kTold : PictureFound::kUntold);
    }
  }
  return found;
}

std::vector<PictureFound> Starts::pictures(const DB_STREAM& now, uint32_t count) {
  if (Card::get().isRefusing()) return read(now, count);
  std::string row(reinterpret_cast<const char*>(&now), sizeof now);
  const auto [place, isNew] = read_.try_emplace({sum(), row + std::to_string(count)});
  if (isNew) place->second = read(now, count);
  return place->second;
}

}  // namespace damage
