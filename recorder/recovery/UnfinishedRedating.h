#pragma once

#include <vector>

#include "manager/ChunkRecords.h"
#include "recorder/recovery/RecoveryReport.h"

namespace tarn {

// Goes on with what a session was re-dating, or `tarn redate` was taking back, when power was cut;
// `channels` are the stream chunks as they were found. Before anything judges recordings by their
// times. What begins now is of a new start: nothing that is recorded from here on may move what
// lies on the card. False when the card or the database did not take a change. Not part of the
// interface.
bool finishRedating(const std::vector<CHUNK_MANAGE>& channels, RecoveryReport* report);

}  // namespace tarn
