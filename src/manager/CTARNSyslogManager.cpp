#include "manager/CTARNSyslogManager.h"

#include <cstdio>

#include "fat/ChunkFiles.h"

CTARNSyslogManager::CTARNSyslogManager(signed char partition) {
  m_partition = partition;
  m_kind = tarn::kFileSyslog;
  snprintf(m_name, sizeof m_name, "syslog");
}

CTARNSyslogManager::~CTARNSyslogManager() = default;

signed char CTARNSyslogManager::getActiveFlag(short chunk, signed char* flag) {
  signed char ignored = 0;
  return static_cast<signed char>(getChunkAttr(chunk, flag, &ignored));
}

signed char CTARNSyslogManager::setActiveFlag(short chunk, signed char flag) {
  return static_cast<signed char>(setChunkAttr(chunk, flag, 0));
}
