#pragma once

// What the syslog reader prints to standard output. Only the first ends its line.
namespace tarn {

inline constexpr char kMsgInvalidType[] = "getChunkStartCount() invalid syslog type (%u)\n";
inline constexpr char kMsgFlagNoManager[] =
    "CApiTarnSyslogRead::getActiveFlag() manager not available";
inline constexpr char kMsgUsageNoManager[] = "CApiTarnSyslogRead::getUsage() manager not available";
inline constexpr char kMsgActiveNoManager[] =
    "CApiTarnSyslogRead::getActiveChunk() manager not available";
inline constexpr char kMsgOpenIndex[] = "CApiTarnSyslogRead::open() invalid index(%u)";
inline constexpr char kMsgOpenNoManager[] = "CApiTarnSyslogRead::open() manager not available";
inline constexpr char kMsgOpenNoChunk[] = "CApiTarnSyslogRead::open() chunk not available";
inline constexpr char kMsgOpenChunkID[] = "CApiTarnSyslogRead::openChunk() invalid chunkID(%u)";
inline constexpr char kMsgOpenChunkNoManager[] =
    "CApiTarnSyslogRead::openChunk() manager not available";
inline constexpr char kMsgOpenChunkNoChunk[] =
    "CApiTarnSyslogRead::openChunk() chunk not available";

}  // namespace tarn
