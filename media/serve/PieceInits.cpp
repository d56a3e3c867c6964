#include "media/serve/PieceInits.h"

#include <algorithm>

namespace tarn {
namespace {

// Sound has no format within: this stands in its place.
constexpr uint32_t kOfSound = UINT32_MAX;

std::string setsOf(const SoundFormat& format) {
  std::string text = "sound " + std::to_string(static_cast<unsigned>(format.codec)) + " " +
                     std::to_string(format.channels) + " " + std::to_string(format.sampleRate);
  return text + " " + std::string(format.config.begin(), format.config.end());
}

bool isThere(const ServedRows& rows, const InitPlace& place) {
  const uint32_t streamID = place.streamID != 0 ? place.streamID : place.soundID;
  return streamID != 0 && rows.find(streamID) != nullptr;
}

}  // namespace

PieceInits::Init PieceInits::ofPictures(const ServedRows& rows, uint32_t streamID,
                                        uint32_t format) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto known = inits_.find({streamID, format});
  if (known != inits_.end() && isThere(rows, known->second.place)) return known->second;
  const ServedRecording* recording = rows.find(streamID);
  const auto description = recording != nullptr ? maker_.describe(*recording, format) : nullptr;
  if (description == nullptr) return Init();
  if (inits_.size() >= kKnown) inits_.clear();
  if (ofSets_.size() >= kKnown) ofSets_.clear();
  InitPlace& shared = ofSets_[std::to_string(recording->channel) + ":" + description->sets];
  if (!isThere(rows, shared)) shared = {streamID, format, 0};
  return inits_[{streamID, format}] = {shared, description->codec};
}

PieceInits::Init PieceInits::ofSound(const ServedRows& rows, uint32_t streamID) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto known = inits_.find({streamID, kOfSound});
  if (known != inits_.end() && isThere(rows, known->second.place)) return known->second;
  const ServedRecording* recording = rows.find(streamID);
  const auto description = recording != nullptr ? sound_.describe(*recording) : nullptr;
  if (description == nullptr || description->codec.empty()) return Init();
  if (inits_.size() >= kKnown) inits_.clear();
  if (ofSets_.size() >= kKnown) ofSets_.clear();
  InitPlace& shared =
      ofSets_[std::to_string(recording->channel) + ":" + setsOf(description->first->format)];
  if (!isThere(rows, shared)) shared = {0, 0, streamID};
  return inits_[{streamID, kOfSound}] = {shared, description->codec};
}

bool PieceInits::complete(const ServedRows& rows, int channel, PlaylistPiece* piece,
                          std::vector<std::string>* codecs) {
  const auto note = [codecs](const std::string& codec) {
    if (codecs != nullptr && std::find(codecs->begin(), codecs->end(), codec) == codecs->end())
      codecs->push_back(codec);
  };
  const Init pictures = ofPictures(rows, piece->piece.streamID, piece->piece.format);
  piece->init = pictures.place;
  piece->soundID = 0;
  if (pictures.place.isNone()) return false;
  note(pictures.codec);
  for (const DB_STREAM& row :
       SoundMaker::rowsOf(rows, channel, piece->piece.fromUs, piece->piece.toUs)) {
    const Init sound = ofSound(rows, row.streamID);
    if (sound.place.isNone()) continue;
    piece->init.soundID = piece->soundID = sound.place.soundID;
    note(sound.codec);
    break;
  }
  return true;
}

}  // namespace tarn
