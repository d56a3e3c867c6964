#include "base/Omission.h"

#include <cstring>

namespace tarn {
namespace {

struct Named {
  const char* name;
  Omit step;
};
constexpr Named kNames[] = {
    {"original-flush", Omit::kOriginalFlush},
    {"mirror-flush", Omit::kMirrorFlush},
    {"journal-look-up", Omit::kJournalLookUp},
    {"journal-free-offset", Omit::kJournalFreeOffset},
    {"record-delete", Omit::kRecordDelete},
    {"row-before-space", Omit::kRowBeforeSpace},
    {"save-before-write", Omit::kSaveBeforeWrite},
    {"manage-backup", Omit::kManageBackup},
    {"manage-copy-flush", Omit::kManageCopyFlush},
    {"manage-flush", Omit::kManageFlush},
    {"fresh-numbers", Omit::kFreshNumbers},
    {"data-before-entries", Omit::kDataBeforeEntries},
    {"entries-flush", Omit::kEntriesFlush},
    {"header-before-row", Omit::kHeaderBeforeRow},
    {"totals-before-row", Omit::kTotalsBeforeRow},
    {"row-before-closed-header", Omit::kRowBeforeClosedHeader},
    {"row-closed-last", Omit::kRowClosedLast},
    {"channel-of-chunk", Omit::kChannelOfChunk},
    {"manage-files", Omit::kManageFiles},
    {"empty-database", Omit::kEmptyDatabase},
    {"scrub", Omit::kScrub},
    {"replay", Omit::kReplay},
    {"row-count", Omit::kRowCount},
    {"seed-keys", Omit::kSeedKeys},
    {"overtaken-rows", Omit::kOvertakenRows},
    {"video-rows", Omit::kVideoRows},
    {"own-walk", Omit::kOwnWalk},
    {"remaining-rows", Omit::kRemainingRows},
    {"events", Omit::kEvents},
    {"headers", Omit::kHeaders},
    {"stream-manage", Omit::kStreamManage},
    {"syslog-manage", Omit::kSyslogManage},
    {"recovery-flush", Omit::kRecoveryFlush},
    {"channels", Omit::kChannels},
    {"refused-is-bad", Omit::kRefusedIsBad},
    {"read-again", Omit::kReadAgain},
    {"copy-marker", Omit::kCopyMarker},
    {"copy-refused", Omit::kCopyRefused},
    {"image-emptied", Omit::kImageEmptied},
    {"image-cleared-first", Omit::kImageClearedFirst},
    {"image-trust", Omit::kImageTrust},
    {"image-seal", Omit::kImageSeal},
    {"log-mark", Omit::kLogMark},
    {"log-blocks", Omit::kLogBlocks},
    {"log-mark-last", Omit::kLogMarkLast},
    {"log-give-up", Omit::kLogGiveUp},
};

bool g_omitted[static_cast<int>(Omit::kNothing)];

}  // namespace

bool omitted(Omit step) { return g_omitted[static_cast<int>(step)]; }

bool omit(const char* name, bool leftOut) {
  for (const Named& known : kNames) {
    if (strcmp(known.name, name) != 0) continue;
    g_omitted[static_cast<int>(known.step)] = leftOut;
    return true;
  }
  return false;
}

}  // namespace tarn
