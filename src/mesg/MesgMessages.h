#pragma once

// Texts that the messaging classes log. The prefix takes the operation, a source line and the
// class.
namespace tarn {

inline constexpr char kMesgServerName[] = "CMesgServer";
inline constexpr char kMesgClientName[] = "CMesgClient";

// Server.
inline constexpr char kMesgThreadCreateError[] = "%s line %d is %s: pthread_create() error";
inline constexpr char kMesgThreadJoinError[] = "%s line %d is %s: pthread_join() error";
inline constexpr char kMesgBindError[] = "%s line %d is %s: bind() error";
inline constexpr char kMesgListenError[] = "%s line %d is %s: listen() error";
inline constexpr char kMesgSetupError[] = "%s line %d is %s: socket setup error";
inline constexpr char kMesgAcceptError[] = "%s line %d is %s: accept() error";
inline constexpr char kMesgNotConnected[] = "%s line %d is %s: not conneted";
inline constexpr char kMesgReadErrno[] = "%s line %d is %s: errorNumber = %d";
inline constexpr char kMesgWriteError[] = "%s line %d is %s: write(fd=%d, mesg, size=%d) error(%d)";
inline constexpr char kMesgAcceptNotice[] = "accept new client fd is %d";
inline constexpr char kMesgClientRefused[] = "%s line %d is %s: client refused, fd(%d) is too high";
inline constexpr char kMesgWakeError[] = "%s line %d is %s: eventfd() error";
inline constexpr char kMesgChmodError[] = "%s line %d is %s: chmod(%s) error(%d)";

// Client.
inline constexpr char kMesgConnectError[] = "%s line %d is %s: connect(%s) error(%d)";
inline constexpr char kMesgReadError[] = "%s line %d is %s: read() error";
inline constexpr char kMesgTooLong[] = "%s line %d is %s: message length too long (%ld)";
inline constexpr char kMesgNoAnswer[] = "%s line %d is %s: no answer in time";
inline constexpr char kMesgWritePerror[] = "@CMesgClient::writeMesg()";

// Both.
inline constexpr char kMesgSocketError[] = "%s line %d is %s: socket() error";
inline constexpr char kMesgSocketClosed[] = "%s line %d is %s: socket %ld closed";

}  // namespace tarn
