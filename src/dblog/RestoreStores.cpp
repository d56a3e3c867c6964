#include "dblog/RestoreStores.h"

#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManagerNative.h"

namespace tarn {
namespace {

thread_local bool t_eitherCopy = false;

}  // namespace

EitherCopyScope::EitherCopyScope() : before_(t_eitherCopy) { t_eitherCopy = true; }
EitherCopyScope::~EitherCopyScope() { t_eitherCopy = before_; }

int openForRestore(CTARNStreamManagerNative* store) {
  const int result = t_eitherCopy ? store->openManageDataFromEither(kRecorderPartition)
                                  : store->openManageData(kRecorderPartition);
  return result >= 0 ? 0 : -1;
}

int saveForRestore(CTARNStreamManagerNative* store) {
  const int result = t_eitherCopy ? store->saveManageDataToEither() : store->saveManageData();
  return result >= 0 ? 0 : -1;
}

}  // namespace tarn
