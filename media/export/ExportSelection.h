#pragma once

#include <map>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "media/MediaInput.h"
#include "media/export/ExportRequest.h"

class CApiDb;

namespace tarn {

class ChunkChannels;

// The recordings that an export is of, looked up in the recorder's database. Used by one thread.
class ExportSelection {
 public:
  // The request outlives this.
  explicit ExportSelection(const ExportRequest& request) : request_(request) {}

  // False with error() set when there are none, or when it cannot be told whether there are.
  bool choose(const StopAsked& stopAsked);

  // By channel (ChunkChannels::kUnknown for one that the card does not tell), each in the order of
  // time.
  const std::map<int, std::vector<DB_STREAM>>& rowsOfChannels() const { return rowsOfChannels_; }
  PictureTime from() const { return from_; }
  PictureTime to() const { return to_; }
  // Of sound: that of a single recording ends with its pictures.
  PictureTime soundTo() const { return soundTo_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool done(CApiDb* database);
  bool chooseRows();
  bool chooseEvent();
  bool chooseStream();
  bool addSoundOf(const DB_STREAM& row, const ChunkChannels& chunks);
  bool choosePeriod();
  bool group();

  const ExportRequest& request_;
  std::vector<DB_STREAM> rows_;
  std::map<int, std::vector<DB_STREAM>> rowsOfChannels_;
  PictureTime from_{0, 0};
  PictureTime to_{UINT32_MAX, 999999};
  PictureTime soundTo_{UINT32_MAX, 999999};
  std::string error_;
};

}  // namespace tarn
