#pragma once

// What the chunk classes write to the system log, at LOG_ERR unless said. Blanks and line ends
// within the quotes belong to the texts.
namespace tarn {

// LOG_WARNING.
inline constexpr char kMsgChunkAlreadyOpened[] = " openChunkLow : error file %s is already opened";
inline constexpr char kMsgChunkCantOpen[] = " error : Can't open file %s [%s]";
// LOG_WARNING; the event's start and the chunk's size.
inline constexpr char kMsgEventBeyondChunk[] =
    "openChunkFile : event start %lu is beyond the chunk. size %lu";
// LOG_WARNING; the operation, the address and the chunk's size.
inline constexpr char kMsgAddressBeyondChunk[] = "%s : address %lu is beyond the chunk. size %lu";

inline constexpr char kMsgWriteNoSpace[] = "write: error write size exceed free space. %lu <= %lu";
inline constexpr char kMsgWriteSeek[] = "write: seek error";
inline constexpr char kMsgWriteSeekErrno[] = "write: seek error. errno[%d]";
inline constexpr char kMsgWriteWriteNoSeek[] = "write: writeNoSeek error";
inline constexpr char kMsgWriteUsageUnknown[] = "write: free address is not known";
inline constexpr char kMsgWriteNoSeekPosition[] = "writeNoSeek : seek error. errno[%d]";
inline constexpr char kMsgWriteNoSeekWrite[] = "writeDataNoSeek: write error. errno[%d]";
inline constexpr char kMsgWriteNoSeekSeek[] = "writeDataNoSeek: seek error. errno[%d]";
inline constexpr char kMsgRollbackTooLarge[] = "writeRollback: size %ld is not that of a write";

inline constexpr char kMsgReadPosition[] = "readData : seek error. errno[%d]";
inline constexpr char kMsgReadExceedsChunk[] = "readData : size exceed check error";
inline constexpr char kMsgReadRead[] = "readData: read error. errno[%d]";
inline constexpr char kMsgReadSize[] = "read_dsize , size = %d, %ld";
inline constexpr char kMsgReadSeek[] = "readData: seek error. errno[%d]";

inline constexpr char kMsgSeekSeek[] = "seek: seek error. errno[%d]";
// Kept on purpose: names pictures for every kind of chunk; log filters in the field know the text.
inline constexpr char kMsgSeekEventSeek[] = "seekPicture: seek error. errno[%d]";
// LOG_WARNING, all of the range errors. Their numbers tell which case it was.
inline constexpr char kMsgSeekEventRange1[] = "seekEvent: SEEK_CUR range error1 offset too big.";
inline constexpr char kMsgSeekEventRange2[] = "seekEvent: SEEK_CUR range error2 offset too big.";
inline constexpr char kMsgSeekEventRange3[] = "seekEvent: SEEK_CUR range error3 offset too big.";
inline constexpr char kMsgSeekEventRange4[] = "seekEvent: SEEK_CUR range error4 offset too big.";
inline constexpr char kMsgSeekEventRange5[] = "seekEvent: SEEK_CUR range error5 offset too small.";
inline constexpr char kMsgSeekEventRange6[] = "seekEvent: SEEK_CUR range error6 offset too small.";
inline constexpr char kMsgSeekEventRange7[] = "seekEvent: SEEK_CUR range error7 offset too small.";
inline constexpr char kMsgSeekEventRange8[] = "seekEvent: SEEK_CUR range error8 offset too small.";
inline constexpr char kMsgSeekEventSet[] = "seekEvent: SEEK_SET range error";
inline constexpr char kMsgSeekEventSetSizes[] = "EventSize(%lu) < offset(%ld) or offset is minus";
inline constexpr char kMsgSeekEventEnd[] = "seekEvent: SEEK_END range error";
inline constexpr char kMsgSeekEventEndSizes[] =
    "EventSize(%lu) < abs(offset(%ld)) or offset is plus";

inline constexpr char kMsgSeekReadSeek[] = "seekRead: seek error";
// Kept on purpose: "pictue" and "picure"; log filters in the field know the texts.
inline constexpr char kMsgNotPictureChunk[] = " error : is not pictue chunk";
inline constexpr char kMsgPictureNotOpened[] = " error : pictue chunk not opened(id=%d)";
inline constexpr char kMsgPictureCantRead[] = " error : can't read picure chunk(id=%d)";

inline constexpr char kMsgMirrorOriginalWrite[] = "write fail original chunk. (ret:%ld size:%ld)\n";
inline constexpr char kMsgMirrorWrite[] =
    "write fail mirrored chunk. original chunk write point rollbacked:(ret:%ld size:%ld)\n";
// LOG_INFO.
inline constexpr char kMsgMirrorReadError[] = "%s read data error. error=%ld";
// LOG_WARNING.
inline constexpr char kMsgMirrorUsed[] =
    "%s : original side data read error. use mirror size data (read offset = %lu)\n";
inline constexpr char kMsgMirrorSeekRollback[] = "CTARNMirrorChunk::seekEvent rollback fail.";

// The database image. Kept on purpose: some of these texts have a full stop before "errno" and
// some have none.
inline constexpr char kMsgDbSaveCantOpen[] = " error : Can't open file %s [%s] errno[%d]";
inline constexpr char kMsgDbCantOpen[] = " error : Can't open file %s [%s]. errno[%d]";
inline constexpr char kMsgDbCantStat[] = " error : Can't stat data to %s";
inline constexpr char kMsgDbNoData[] = " no DB backup data on RAMDisk";
inline constexpr char kMsgDbSaveSeek[] = "copyIn: seek error. errno[%d]";
inline constexpr char kMsgDbCantWriteImage[] = " error : Can't write data to %s errno[%d]";
inline constexpr char kMsgDbCantWrite[] = " error : Can't write data to %s. errno[%d]";
inline constexpr char kMsgDbCantRead[] = " error : Can't read data to %s. errno[%d]";
inline constexpr char kMsgDbClearSize[] = " clearDBChunk() size error(%ld)";
// LOG_INFO.
inline constexpr char kMsgDbSaved[] = " save DB size = %ld";
inline constexpr char kMsgDbRestored[] = " read DB size = %ld";

}  // namespace tarn
