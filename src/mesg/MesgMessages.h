#pragma once

// Texts that the messaging classes log. The prefix takes the operation, a source line and the
// class.
namespace tarn {

inline constexpr char kMesgServerName[] = "CMesgServer";
inline constexpr char kMesgClientName[] = "CMesgClient";

// Server.
inline constexpr char kMsgThreadCreateError[] = "%s line %d is %s: pthread_create() error";
inline constexpr char kMsgThreadJoinError[] = "%s line %d is %s: pthread_join() error";
inline constexpr char kMsgBindError[] = "%s line %d is %s: bind() error";
inline constexpr char kMsgListenError[] = "%s line %d is %s: listen() error";
inline constexpr char kMsgSetupError[] = "%s line %d is %s: socket setup error";
inline constexpr char kMsgAcceptError[] = "%s line %d is %s: accept() error";
inline constexpr char kMsgNotConnected[] = "%s line %d is %s: not conneted";
inline constexpr char kMsgReadErrno[] = "%s line %d is %s: errorNumber = %d";
inline constexpr char kMsgPacketWriteError[] =
    "%s line %d is %s: write(fd=%d, mesg, size=%d) error(%d)";
inline constexpr char kMsgAcceptNotice[] = "accept new client fd is %d";
inline constexpr char kMsgClientRefused[] = "%s line %d is %s: client refused, fd(%d) is too high";
inline constexpr char kMsgWakeError[] = "%s line %d is %s: eventfd() error";
inline constexpr char kMsgChmodError[] = "%s line %d is %s: chmod(%s) error(%d)";

// Client.
inline constexpr char kMsgConnectError[] = "%s line %d is %s: connect(%s) error(%d)";
inline constexpr char kMsgReadError[] = "%s line %d is %s: read() error";
inline constexpr char kMsgTooLong[] = "%s line %d is %s: message length too long (%ld)";
inline constexpr char kMsgWritePerror[] = "@CMesgClient::writeMesg()";

// Both.
inline constexpr char kMsgSocketError[] = "%s line %d is %s: socket() error";
inline constexpr char kMsgSocketClosed[] = "%s line %d is %s: socket %ld closed";

}  // namespace tarn
