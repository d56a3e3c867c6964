#pragma once

// Every log text of the journal and of the rebuild from it, at LOG_ERR unless said otherwise.
// Blanks and spellings are part of the texts: log readers match them whole.
namespace tarn {

// Journal: connection.
inline constexpr char kMsgJournalConnect[] = "CDbLog :: connect";  // LOG_INFO
inline constexpr char kMsgJournalConnectError[] = "CDbLog::%s connect error.";
inline constexpr char kMsgJournalNoManager[] = "can't open CTARNEndlessManager";
inline constexpr char kMsgJournalNoEventChunk[] = "can't open chunkfile. (eventDbLog)";
inline constexpr char kMsgJournalNoStreamChunk[] = "can't open chunkfile. (streamDbLog)";
inline constexpr char kMsgJournalSelectError[] = " DB LOG select error";

// Journal: refusals by process mode.
inline constexpr char kMsgInsertEventRefused[] = "CDbLog::insertEvent() process is not recman";
inline constexpr char kMsgUpdateEventRefused[] =
    "CDbLog::updateEvent() process is not recman or menu";
inline constexpr char kMsgDeleteEventRefused[] =
    "CDbLog::deleteEvent() process is not recman or menu";
// Kept on purpose: this one names insertEvent, and that of clearDbLogFreeAddr names
// clearDbLogManageInfo; log readers match them.
inline constexpr char kMsgInsertStreamRefused[] = "CDbLog::insertEvent() process is not valid";
inline constexpr char kMsgUpdateStreamRefused[] = "CDbLog::updateStream() process is not valid";
inline constexpr char kMsgDeleteStreamRefused[] = "CDbLog::deleteStream() process is not recman";
inline constexpr char kMsgEventOffsetRefused[] =
    "CDbLog::getEventLogBackOffset() process is not recman";
inline constexpr char kMsgStreamOffsetRefused[] =
    "CDbLog::getStreamLogBackOffset() process is not valid";
inline constexpr char kMsgClearRefused[] = "CDbLog::clearDbLogManageInfo() process is not valid";
inline constexpr char kMsgCorrectRefused[] = "CDbLog::correctFreeOffset() process is not valid";

// Journal: records.
inline constexpr char kMsgInsertEventWrite[] = "CDbLog::insertEvent() write chunk error.";
inline constexpr char kMsgInsertStreamWrite[] = "CDbLog::insertStream() write chunk error.";
inline constexpr char kMsgUpdateEventLogNoBits[] =
    "CDbLog::updateEvent() eRegBit all zero";  // LOG_WARNING
inline constexpr char kMsgUpdateEventNoRecord[] = "CDbLog::updateEvent() no record found.";
inline constexpr char kMsgUpdateEventSeek[] = "CDbLog::updateEvent() seek error.";
inline constexpr char kMsgUpdateEventRead[] = "CDbLog::updateEvent() read chunk error.";
inline constexpr char kMsgUpdateEventWrite[] = "CDbLog::updateEvent() write chunk error.";
inline constexpr char kMsgUpdateStreamLogNoBits[] =
    "CDbLog::updateStream() sRegBit all zero";  // LOG_WARNING
inline constexpr char kMsgUpdateStreamNoRecord[] = "CDbLog::updateStream() no record found.";
inline constexpr char kMsgUpdateStreamSeek[] = "CDbLog::updateStream() seek error.";
inline constexpr char kMsgUpdateStreamRead[] = "CDbLog::updateStream() read chunk error.";
inline constexpr char kMsgUpdateStreamWrite[] = "CDbLog::updateStream() write chunk error.";
inline constexpr char kMsgDeleteEventNoRecord[] = "CDbLog::deleteEvent() no record found.";
inline constexpr char kMsgDeleteEventSeek[] = "CDbLog::deleteEvent() seek error.";
inline constexpr char kMsgDeleteEventRead[] = "CDbLog::deleteEvent() read chunk error.";
// Kept on purpose: ends in a blank, unlike the stream's; log readers match it.
inline constexpr char kMsgDeleteEventWrite[] = "CDbLog::deleteEvent() write chunk error. ";
inline constexpr char kMsgDeleteStreamNoRecord[] = "CDbLog::deleteStream() no record found.";
inline constexpr char kMsgDeleteStreamSeek[] = "CDbLog::deleteStream() seek error.";
inline constexpr char kMsgDeleteStreamRead[] = "CDbLog::deleteStream() read chunk error.";
inline constexpr char kMsgDeleteStreamWrite[] = "CDbLog::deleteStream() write chunk error.";

// Rebuild.
inline constexpr char kMsgSetupDbError[] = "setupEmptyDb() can't init DB";
inline constexpr char kMsgReplayNoChunk[] = "can't open ChunkFile";
inline constexpr char kMsgReplayEventSql[] = "restoreEventDb setSqlNoResult (%s) error = %ld";
inline constexpr char kMsgReplayStreamSql[] = "restoreStreamDbRec setSqlNoResult (%s) error = %ld";
inline constexpr char kMsgReplayEventDone[] =
    "restoreEventDb : checked records = %lu offset = %lu";  // LOG_INFO
inline constexpr char kMsgReplayStreamDone[] =
    "restoreStreamDbRec : checked records = %lu offset = %lu";  // LOG_INFO
// Beyond the basic operations; also what a start-up reports for a person.
inline constexpr char kMsgReplayRefused[] = "the %s journal cannot be read at byte %lu";
inline constexpr char kMsgReplayFull[] =
    "the database has no room for the rows of the journal: /tmp is full";
inline constexpr char kMsgReplayLost[] = "the database did not keep the rows of the journal";

// Native edits.
inline constexpr char kMsgNativeOpen[] = " error : can't open file %s";
inline constexpr char kMsgNativeSeek[] = " error : can't seek file";
inline constexpr char kMsgNativeRead[] = " error : can't read file";
inline constexpr char kMsgNativeWrite[] = " error : can't write file";

}  // namespace tarn
