#pragma once

// Log texts of the last-recording repair and of the management recovery, at LOG_ERR unless said
// otherwise. Blanks and spellings are part of the texts: log readers match them whole.
namespace tarn {

// The repair's place in the "%s-%d[%s]" texts, wherever its lines stand: log readers match both.
inline constexpr char kRepairSource[] = "CDbRestore.cpp";
inline constexpr char kRepairFunction[] = "fixUpVideoStream";

inline constexpr char kMsgRepairSelect[] = " DB LOG select error";
inline constexpr char kMsgRepairCount[] = " fixUpLastStream() %ld record needs fixup";  // LOG_INFO
inline constexpr char kMsgRepairKind[] = " record type is %08lx. this record can't recover.";
inline constexpr char kMsgRepairPictureOpen[] = "openChunkFileError<pictureChunk> %s-%d[%s]";
inline constexpr char kMsgRepairStreamOpen[] = "openChunkFileError<streamChunk> %s-%d[%s]";
inline constexpr char kMsgRepairHeaderRead[] = "read stream header error. %s-%d[%s]";
inline constexpr char kMsgRepairMarker[] = "MARKER illegal : %08lx sql=%s";  // LOG_INFO
inline constexpr char kMsgRepairNoGops[] = ">>>> streamHeader restore GOPS is 0";
inline constexpr char kMsgRepairPictureRead[] = "read picture error. %s-%d[%s]";
inline constexpr char kMsgRepairStreamSeek[] = "seek stream error. %s-%d[%s]";
inline constexpr char kMsgRepairStreamRead[] = "read stream error. %s-%d[%s]";
inline constexpr char kMsgRepairUnmatched[] =
    "unmatched stream data pts (pictureID = %lu stream=%lu startdate=%lu).";  // LOG_INFO
inline constexpr char kMsgRepairStatement[] = "id:%lu offset:%lu startdate:%lu sql=%s";
inline constexpr char kMsgRepairDelete[] = " DB delete error ";
inline constexpr char kMsgRepairUpdate[] = " DB update error";

inline constexpr char kMsgLastEventSelect[] = "%s SELECT ERROR.";
inline constexpr char kMsgLastEventStatement[] = "Stream[%ld-%ld] eventStart:%ld  sql=%s";
inline constexpr char kMsgLastEventAccess[] = "DataBase access error.";
inline constexpr char kMsgLastEventUpdate[] = "%s event DB update error. eventID = %lu";

inline constexpr char kMsgPictureWriteOpen[] = " error : can't open file %s";
inline constexpr char kMsgPictureWriteSeek[] = " error : can't seek file";
inline constexpr char kMsgPictureWrite[] = " error : can't write file";

// Management recovery.
inline constexpr char kMsgManageOpenChunk[] = "openChunkFile error";
inline constexpr char kMsgManageRead[] = "readPicture error";
// Kept on purpose: both syslog operations name the second one.
inline constexpr char kMsgSyslogType[] = "incrementSyslogActiveID() invalid syslog type (%u)\n";
inline constexpr char kMsgSyslogActive[] = "can't get syslog activeID for syslog type %d";

}  // namespace tarn
