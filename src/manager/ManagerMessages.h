#pragma once

// Texts of the manager folder, whole. To the system log unless said otherwise.
namespace tarn {

// Stores. Blanks at the ends and their absence are part of each text.
inline constexpr char kMsgStoreStreamChunks[] = " We have %d Stream chunk.";  // LOG_INFO
inline constexpr char kMsgStoreEndlessChunks[] = " We have %s %d chunk.";     // standard output
inline constexpr char kMsgStoreStreamInfoError[] = "getChunkInfo open error";
inline constexpr char kMsgStoreEndlessInfoError[] = " getChunkInfo open error";
inline constexpr char kMsgStoreOpenError[] = " %s open error";
inline constexpr char kMsgStoreNoMemory[] = " can't alloc memory for CHUNK_MANAGE";
inline constexpr char kMsgStoreSeekError[] = "lseek error ";
inline constexpr char kMsgStoreReadError[] = "read error ";
inline constexpr char kMsgStoreCrcError[] = " openManageData() CRC error (%s) ";
inline constexpr char kMsgStoreFromBackup[] =
    "management data (%s): the main copy is not good, taken from the backup";  // LOG_WARNING
inline constexpr char kMsgStoreOneCopy[] =
    "management data (%s): only the %s copy could be saved";  // LOG_WARNING
inline constexpr char kMsgStoreSave[] = " saveManageData (%s) ";  // LOG_INFO
inline constexpr char kMsgStoreBackupSeekError[] = " saveManageData: backup lseek error ";
inline constexpr char kMsgStoreBackupWriteError[] = " saveManageData: backup write error ";
inline constexpr char kMsgStoreMainSeekError[] = " saveManageData: lseek error ";
inline constexpr char kMsgStoreMainWriteError[] = " saveManageData: write error ";
inline constexpr char kMsgStoreSelectError[] = " firstAvailableChunk DB select error";
// To standard output, without a line end.
inline constexpr char kMsgStoreCrc[] = "CRC = 0x%x";
inline constexpr char kMsgStoreFoundAvailable[] =
    "Found available chunk = %d for ch(%d) type(%d)---";
inline constexpr char kMsgStoreFoundUnused[] = "Found nonused chunk = %d for ch(%d) type(%d)---";

// Requests; the argument is the operation's word.
inline constexpr char kMsgRequestWriteError[] = "CTARNManagerBase:%s() writeMesg error";
inline constexpr char kMsgRequestReadError[] = "CTARNManagerBase:%s() readMesg error";
inline constexpr char kMsgRequestRefused[] = "CTARNManagerBase:%s() result NG";
// Kept on purpose: getNumUsedChunk alone spells the class so and ends its line; log filters look
// for both spellings.
inline constexpr char kMsgUsedWriteError[] = "CTANRManageBase::%s() writeMesg error\n";
inline constexpr char kMsgUsedReadError[] = "CTANRManageBase::%s() readMesg error\n";
inline constexpr char kMsgUsedRefused[] = "CTANRManageBase::%s() result NG\n";

// Words of the requests. Kept on purpose: setChunkAttr and getFreeSizeTotal log under the names of
// the store operations that they reach.
inline constexpr char kWordOpenManageData[] = "openManageData";
inline constexpr char kWordGetUsage[] = "getUsage";
inline constexpr char kWordGetChunkAttr[] = "getChunkAttr";
inline constexpr char kWordSetChunkAttr[] = "setChType";
inline constexpr char kWordSetUseOffset[] = "setUseOffset";
inline constexpr char kWordSetFreeOffset[] = "setFreeOffset";
inline constexpr char kWordSaveManageData[] = "saveManageData";
inline constexpr char kWordFreeSizeTotal[] = "freeSizeTotal";
inline constexpr char kWordGetNumUsedChunk[] = "getNumUsedChunk";
inline constexpr char kWordFirstAvailableChunk[] = "firstAvailableChunk";

// Deletion. The range warnings' parentheses do not balance; that is part of their text.
inline constexpr char kMsgDeleteChunkSize[] = "deleteData : chunk size < delete size";
inline constexpr char kMsgDeletePictureSize[] = "deleteData : picture size < delete size";
inline constexpr char kMsgDeleteStreamSize[] = "deleteData : stream size < delete size";
inline constexpr char kMsgDeleteRange1[] =
    "deleteData : range error1. A(%lu) B(%lu) U(%lu) F(%lu) (A must be zero && Bend < Free)";
inline constexpr char kMsgDeleteRange2[] =
    "deleteData : range error2. A(%lu) B(%lu) U(%lu) F(%lu) (Astart < Free && U < Bend && Bend < "
    "Free)";
inline constexpr char kMsgDeleteRange3[] =
    "deleteData : range error3. A(%lu) B(%lu) U(%lu) F(%lu) (Astart < U && (U < Bend || B = zero)";
inline constexpr char kMsgDeleteRange4[] =
    "deleteData : range error4. A(%lu) B(%lu) U(%lu) F(%lu) (F < Astart && Astart < U && (U < Bend "
    "|| Bend < Free)";
inline constexpr char kMsgDeleteOpenError[] = "deleteData : can't open chunk.";
inline constexpr char kMsgDeleteSeekError[] = "seekEvent error";
inline constexpr char kMsgDeleteStreamHeaderError[] = "read stream header error";
inline constexpr char kMsgDeletePictureHeaderError[] = "read picture header error";
inline constexpr char kMsgDeleteTrace[] =
    "tarn::delete() chunk:%d:%d, A:%lu,B:%lu,U:%lu->%lu,F:%lu->%lu";  // LOG_INFO

}  // namespace tarn
