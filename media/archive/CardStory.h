#pragma once

#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/evidence/EvidenceStory.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/check/CardFinding.h"

namespace tarn {

// What an index says of the times around and inside a card's recordings: gaps with their reasons,
// as an evidence folder has them, and what a check of the card finds wrong with a recording. Used
// by one thread. Not part of the interface.
class CardStory {
 public:
  explicit CardStory(const std::string& recorder) : recorder_(recorder) {}

  // Reads the chunks' channels. False with *error.
  bool read(std::string* error);
  // In front of asking for gaps. What of it cannot be read makes reasons unknown.
  void readJournal();
  // As an export sorts them.
  int channelOf(const DB_STREAM& row) const;

  // Between the recordings of a card: a line for each.
  std::vector<ArchiveLine> gapsBetween(const std::vector<DB_STREAM>& rows) const;
  // Within a recording of pictures that is closed. Reads its entries.
  std::vector<ArchiveLine> gapsInside(const DB_STREAM& row) const;
  // What is wrong with recordings, of which each byte is read where `whole`. False with *error when
  // it cannot be told.
  bool findings(const std::vector<DB_STREAM>& rows, const std::vector<DB_EVENT>& events, bool whole,
                const StopAsked& stopAsked, std::vector<ArchiveLine>* lines,
                std::string* error) const;
  // What is wrong with the card itself, and stays so for as long as it takes to look twice: lines
  // of no recording, of the moment `ms`. False with *error when it cannot be told.
  bool cardFindings(int64_t ms, std::vector<ArchiveLine>* lines, std::string* error) const;

 private:
  std::vector<ArchiveLine> linesOf(int channel, const std::vector<EvidenceGap>& gaps) const;
  ArchiveLine lineOf(const CardFinding& finding) const;

  const std::string recorder_;
  ChunkChannels chunks_;
  EvidenceJournal journal_;
};

}  // namespace tarn
