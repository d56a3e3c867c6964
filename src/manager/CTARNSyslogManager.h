#pragma once

#include "base/Export.h"
#include "manager/CTARNManagerBase.h"

// Client-side manager of the syslog chunks. Adds the active flag, the first attribute byte of a
// chunk: that of the first chunk of a syslog type holds the number of the chunk being written.
// Threads, results and closing as in the base class.
class TARN_API CTARNSyslogManager : public CTARNManagerBase {
 public:
  explicit CTARNSyslogManager(signed char partition);
  ~CTARNSyslogManager() override;

  signed char getActiveFlag(short chunk, signed char* flag);
  // Also sets the chunk's second attribute byte (record type) to 0.
  signed char setActiveFlag(short chunk, signed char flag);
};
