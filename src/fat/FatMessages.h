#pragma once

// What raw volume access writes to the system log, all at LOG_ERR and each behind kMsgFatPrefix.
namespace tarn {

inline constexpr char kMsgFatPrefix[] = "%s line %d in %s: ";  // operation, line, source file
inline constexpr char kMsgFatSource[] = "CFATAccess.cpp";

inline constexpr char kMsgNoMoreIndex[] = "fat.open() No more index for open";
inline constexpr char kMsgNoDeviceName[] = "fat.open() No device name.(%s)";
inline constexpr char kMsgNoChunkName[] = "fat.open() No chunk name.(%s)";
inline constexpr char kMsgUnknownFileType[] = "fat.open() Not supported file type!!";
inline constexpr char kMsgOpenError[] = "open error %s";
inline constexpr char kMsgBootSectorError[] = "read boot sector error %s";
inline constexpr char kMsgNotFat32[] = "%s is not FAT32 filesystem";
inline constexpr char kMsgLseekError[] = "lseek error";
inline constexpr char kMsgSeekToFatError[] = "seekto FAT error";
inline constexpr char kMsgChunkInfoError[] = "read chunk_info error %s";
inline constexpr char kMsgNotTarn[] = "%s is not TARN filesystem";
inline constexpr char kMsgWriteBufferAlloc[] = "write buffer alloc error";
inline constexpr char kMsgReadBufferAlloc[] = "read buffer alloc error";

inline constexpr char kMsgReadIndex[] = "read : invalid index";
inline constexpr char kMsgWriteIndex[] = "write: invalid index";
inline constexpr char kMsgWriteTooLarge[] = "write : data size too large";
inline constexpr char kMsgWriteLseek[] = "write : lseek error";
inline constexpr char kMsgLseekIndex[] = "lseek: invalid index(%d)";
inline constexpr char kMsgLseekEnd[] = "lseek: SEEK_END is not supported";
inline constexpr char kMsgLseekDevice[] = "CFATAccess.lseek";
// Kept on purpose: fsync() names itself "read" here; log filters in the field know the text.
inline constexpr char kMsgFsyncIndex[] = "read: invalid index";
inline constexpr char kMsgCloseIndex[] = "close: invalid index";
inline constexpr char kMsgCloseNotOpen[] = "close: invalid index. not opened file";
inline constexpr char kMsgSyncError[] = "sync error [errno=%d]";
inline constexpr char kMsgWriteError[] = "write error 2 writesize[%ld/%ld] [errno=%d]";
// Kept on purpose: names the message server's class; log filters in the field know the text.
inline constexpr char kMsgThreadCreate[] = "@CMesgServer# pthread_create() error";

}  // namespace tarn
