#include <fmt/format.h>

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "Command.h"
#include "Console.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/CardText.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundChunks.h"

namespace tarn {
namespace {

const char* copiesText(CardManagement::Copies copies) {
  switch (copies) {
    case CardManagement::Copies::kBothGood:
      return "both copies good";
    case CardManagement::Copies::kMainBad:
      return "main copy bad, backup good";
    case CardManagement::Copies::kBackupBad:
      return "main copy good, backup bad";
    case CardManagement::Copies::kDifferent:
      return "both copies good, but different";
    case CardManagement::Copies::kBothBad:
      break;
  }
  return "both copies bad";
}

// A guarded chunk has a mark in place of its channel.
int channelOf(const CHUNK_MANAGE& record) {
  return isGuarded(record.chType) ? guardedChannel(record.chType) : record.chType;
}

class CommandInfo : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app =
        tool.add_subcommand("info", "Show a card's geometry and what is used; changes nothing");
    addCard(app);
    app->add_flag("--chunks", chunks_, "show every stream chunk in use");
    app->add_option("--channel", channel_, "with --chunks only this channel's")
        ->check(CLI::Range(0, 127));
    app->add_flag("--json", json_, "print JSON");
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return false; }

  int run() override {
    if (card_.empty()) card_ = deviceName(kRecorderPartition);
    std::string error;
    if (info_.read(card_, &error) != 0) {
      complain(error);
      return kExitFailed;
    }
    if (json_) {
      printJson();
    } else {
      printText();
    }
    return kExitGood;
  }

 private:
  void printText() const {
    fmt::print("{}\n", cardName(card_));
    fmt::print("  volume    {} \"{}\", {} of {}\n", volumeId(), info_.label(),
               sizeText(info_.volumeBytes()), sizeText(info_.deviceBytes()));
    fmt::print("  clusters  {} of {}\n\n", info_.clusters(), sizeText(info_.clusterBytes()));
    fmt::print("  {:<20} {:>6} {:>12} {:>12}  {}\n", "family", "chunks", "chunk size",
               "first sector", "used");
    for (int type = 0; type < kFileTypeCount; ++type) printFamily(type);
    printChannels();
    if (chunks_) printChunks();
  }

  // What the chunks of one channel hold.
  struct ChannelUse {
    uint32_t chunks = 0;
    uint32_t guarded = 0;  // of them
    uint32_t sound = 0;    // of them, with sound instead of video
    uint64_t bytes = 0;
  };

  std::map<int, ChannelUse> channelUse() const {
    std::map<int, ChannelUse> channels;
    const std::set<uint32_t> sound = soundChunks(card_);
    const std::vector<CHUNK_MANAGE>& records = info_.management(kFileStreamManage).records;
    for (uint32_t chunk = 0; chunk < records.size(); ++chunk) {
      if (records[chunk].chType == kChannelUnused) continue;
      ChannelUse& use = channels[channelOf(records[chunk])];
      ++use.chunks;
      if (isGuarded(records[chunk].chType)) ++use.guarded;
      if (sound.count(chunk) != 0) ++use.sound;
      use.bytes += info_.usedBytes(kFileStream, chunk);
    }
    return channels;
  }

  void printChannels() const {
    const auto channels = channelUse();
    if (!channels.empty()) fmt::print("\n");
    for (const auto& [channel, use] : channels) {
      const std::string name =
          channel == kKeptChannel ? "kept events" : fmt::format("channel {:<3}", channel);
      fmt::print("  {} {} in {} chunks{}{}\n", name, sizeText(use.bytes), use.chunks,
                 use.sound == 0 ? "" : fmt::format(", {} of them sound", use.sound),
                 use.guarded == 0 ? "" : fmt::format(", {} of them guarded", use.guarded));
    }
  }

  nlohmann::ordered_json channelsJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& [channel, use] : channelUse()) {
      list.push_back({{"channel", channel},
                      {"chunks", use.chunks},
                      {"guardedChunks", use.guarded},
                      {"soundChunks", use.sound},
                      {"usedBytes", use.bytes}});
    }
    return list;
  }

  void printFamily(int type) const {
    const CardFamily& family = info_.family(type);
    fmt::print("  {:<20} {:>6} {:>12} {:>12}  {}\n", CardLayout::familyName(type), family.chunks,
               sizeText(family.chunkSize), family.startSector, usedText(type));
  }

  std::string usedText(int type) const {
    switch (type) {
      case kFileInfo:
        return "";
      case kFileJournalManage:
      case kFileSyslogManage:
      case kFileStreamManage:
        return copiesText(info_.management(type).copies);
      case kFileDbImage:
        return info_.dbImageBytes() > 0
                   ? sizeText(static_cast<uint64_t>(info_.dbImageBytes())) + " stored"
                   : "empty";
      case kFileStream:
        return fmt::format("{} in {} chunks", sizeText(info_.usedBytes(type)),
                           info_.streamChunksInUse());
      default:
        return sizeText(info_.usedBytes(type));
    }
  }

  void printChunks() const {
    fmt::print("\n  {:>6} {:>8} {:>12} {:>12} {:>12} {:>12} {:>12}\n", "chunk", "channel",
               "stream use", "stream free", "picture use", "picture free", "bytes used");
    const std::vector<CHUNK_MANAGE>& records = info_.management(kFileStreamManage).records;
    for (uint32_t chunk = 0; chunk < records.size(); ++chunk) {
      const CHUNK_MANAGE& record = records[chunk];
      if (record.chType == kChannelUnused || (channel_ && *channel_ != channelOf(record))) continue;
      const bool guarded = isGuarded(record.chType);
      fmt::print("  {:>6} {:>8} {:>12} {:>12} {:>12} {:>12} {:>12}{}\n", chunk, channelOf(record),
                 record.streamUseOffset, record.streamFreeOffset, record.pictureUseOffset,
                 record.pictureFreeOffset, info_.usedBytes(kFileStream, chunk),
                 guarded ? "  guarded" : "");
    }
  }

  void printJson() const {
    nlohmann::ordered_json families = nlohmann::ordered_json::array();
    for (int type = 0; type < kFileTypeCount; ++type) families.push_back(familyJson(type));
    const nlohmann::ordered_json card = {{"schema", 1},
                                         {"card", cardName(card_)},
                                         {"volumeId", volumeId()},
                                         {"label", info_.label()},
                                         {"deviceBytes", info_.deviceBytes()},
                                         {"volumeBytes", info_.volumeBytes()},
                                         {"clusterBytes", info_.clusterBytes()},
                                         {"clusters", info_.clusters()},
                                         {"streamChunksInUse", info_.streamChunksInUse()},
                                         {"databaseImageBytes", info_.dbImageBytes()},
                                         {"channels", channelsJson()},
                                         {"families", families}};
    // Names come from the command line and need not be UTF-8.
    fmt::print("{}\n", card.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  }

  nlohmann::ordered_json familyJson(int type) const {
    const CardFamily& family = info_.family(type);
    nlohmann::ordered_json json = {{"tag", fileTag(type)},
                                   {"name", CardLayout::familyName(type)},
                                   {"chunks", family.chunks},
                                   {"chunkSize", family.chunkSize},
                                   {"startSector", family.startSector}};
    if (type == kFileJournalManage || type == kFileSyslogManage || type == kFileStreamManage) {
      json["copies"] = copiesText(info_.management(type).copies);
    } else if (type != kFileInfo && type != kFileDbImage) {
      json["usedBytes"] = info_.usedBytes(type);
    }
    if (type == kFileStream) json["records"] = recordsJson();
    return json;
  }

  nlohmann::ordered_json recordsJson() const {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const CHUNK_MANAGE& record : info_.management(kFileStreamManage).records) {
      list.push_back({{"chType", channelOf(record)},
                      {"guarded", isGuarded(record.chType)},
                      {"recType", int{record.recType}},
                      {"streamUseOffset", record.streamUseOffset},
                      {"streamFreeOffset", record.streamFreeOffset},
                      {"pictureUseOffset", record.pictureUseOffset},
                      {"pictureFreeOffset", record.pictureFreeOffset}});
    }
    return list;
  }

  std::string volumeId() const {
    return fmt::format("{:04X}-{:04X}", info_.volumeId() >> 16, info_.volumeId() & 0xFFFF);
  }

  bool chunks_ = false;
  std::optional<int> channel_;
  bool json_ = false;
  CardInfo info_;
};

}  // namespace

std::unique_ptr<Command> makeInfoCommand() { return std::make_unique<CommandInfo>(); }

}  // namespace tarn
