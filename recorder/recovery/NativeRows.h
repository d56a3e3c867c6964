#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// Rows of the database changed together with their journal records, before a server runs. The
// record goes first: a row that the card still lists comes back at the next start, so it is worth
// less than its record. Not part of the interface.

// Rows of a statement that selects whole rows. False when it fails.
bool selectStreams(const std::string& sql, std::vector<DB_STREAM>* rows);
bool selectEvents(const std::string& sql, std::vector<DB_EVENT>* rows);
// The first number that a statement gives, 0 without a row. False when it fails.
bool selectNumber(const std::string& sql, uint32_t* value);
// The row of a key: 1 when there is one, 0 when not, -1 when the database cannot be asked.
int findStream(uint32_t streamID, DB_STREAM* row);

bool deleteStreamNative(const DB_STREAM& row);
bool deleteEventNative(const DB_EVENT& row);
// Closes an interrupted recording: pictures, time of the last one (seconds).
bool closeStreamNative(const DB_STREAM& row, uint32_t pictures, uint32_t endDate);
bool closeEventNative(DB_EVENT row, PictureTime end);
// Gives a row the times (and a recording its status) that it has here.
bool redateStreamNative(const DB_STREAM& row);
bool redateEventNative(const DB_EVENT& row);

// Why a recovery ends that could not change a row: for its error, logged.
std::string cannotChange(const DB_STREAM& row);
std::string cannotChange(const DB_EVENT& row);

// "recording 12 of 2026-03-01 09:00:00+01:00" and "event 3 of …".
std::string nameOf(const DB_STREAM& row);
std::string nameOf(const DB_EVENT& row);

}  // namespace tarn
