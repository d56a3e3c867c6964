#pragma once

#include "base/Export.h"

class CTARNStreamManagerNative;

namespace tarn {

// Beyond the basic operations: while one of these lives, CDbRestore's operations of this thread
// open their stores from whichever management copy is good and save to whichever can be written. A
// start-up makes one: a main copy that stays unreadable must not keep a recorder from starting
// whose backup is good. Without it they open the main copy and fail where that is not good.
class TARN_API EitherCopyScope {
 public:
  EitherCopyScope();
  ~EitherCopyScope();
  EitherCopyScope(const EitherCopyScope&) = delete;
  EitherCopyScope& operator=(const EitherCopyScope&) = delete;

 private:
  const bool before_;
};

// What the operations of CDbRestore open and save their stores with. 0 or -1.
int openForRestore(CTARNStreamManagerNative* store);
int saveForRestore(CTARNStreamManagerNative* store);

}  // namespace tarn
