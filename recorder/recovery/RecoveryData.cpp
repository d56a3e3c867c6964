#include <syslog.h>

#include "base/Omission.h"
#include "dblog/CDbRestore.h"
#include "recorder/recovery/DatabaseImage.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/NativeRows.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/recovery/RecoveryMessages.h"
#include "recorder/recovery/StartUp.h"
#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/JournalMessages.h"

// The recovery's steps that bring management data and database back.

namespace tarn {
namespace {

const char* manageName(FileType type) {
  if (type == kFileStream) return "stream chunks";
  return type == kFileSyslog ? "system log" : "journal";
}

const char* manageText(ManageRepair repair) {
  switch (repair) {
    case ManageRepair::kMainCopied:
      return "was bad, taken from its backup";
    case ManageRepair::kBackupCopied:
      return "differed from its backup, which is now the same";
    case ManageRepair::kDefaults:
      return "was bad in both copies, made anew";
    case ManageRepair::kCorrected:
      return "named a chunk that the card does not have, corrected";
    case ManageRepair::kGood:
    case ManageRepair::kMainUnread:
    case ManageRepair::kBackupUnread:
    case ManageRepair::kUnreadable:
    case ManageRepair::kFailed:
      break;
  }
  return "";
}

}  // namespace

bool Recovery::manageFile(FileType type, ManageRepair* repair, std::vector<CHUNK_MANAGE>* records) {
  std::string unread;
  std::vector<CHUNK_MANAGE> anew;
  if (type == kFileStream && !fuseManageFiles(&anew)) return false;
  *repair = repairManageFile(type, records, &unread, anew.empty() ? nullptr : &anew);
  const std::string name = std::string("management file of the ") + manageName(type);
  switch (*repair) {
    case ManageRepair::kFailed:
      return fail(kErrManageFiles);
    case ManageRepair::kUnreadable:
      return fail("the " + name + " cannot be read (" + unread + "); nothing of it was changed");
    case ManageRepair::kMainUnread:
    case ManageRepair::kBackupUnread:
      report_.problems.push_back("one copy of the " + name + " cannot be read (" + unread +
                                 "); it is left as it is, the other one is good");
      break;
    default:
      break;
  }
  const char* text = manageText(*repair);
  if (*text != 0) syslog(LOG_NOTICE, "recovery: %s %s", name.c_str(), text);
  return true;
}

bool Recovery::manageFiles() {
  const bool stream = manageFile(kFileStream, &report_.streamManage, &channels_);
  const bool log = manageFile(kFileSyslog, &report_.syslogManage, nullptr);
  return manageFile(kFileJournal, &report_.journalManage, nullptr) && stream && log;
}

// The image is judged by what the journals hold, and after a start from it they are as good as
// after any other: a damaged copy is mended as long as there is a good one.
bool Recovery::journals() {
  const bool done = startUp_->scrub([this] { return fuseJournals(*startUp_); });
  for (const JournalSurvey* survey : {&startUp_->report().events, &startUp_->report().streams}) {
    if (survey->unread == 0) continue;
    report_.problems.push_back("the " + survey->unreadText + " cannot be read (" +
                               std::to_string(survey->unread) +
                               " records); the other copy is good and is used");
  }
  const uint32_t refused = startUp_->report().events.refused + startUp_->report().streams.refused;
  if (refused > 0) {
    report_.problems.push_back("the card refused " + std::to_string(refused) +
                               " corrections of journal records");
  }
  report_.startUp = startUp_->report();
  return done || fail(report_.startUp.error);  // but for what the fuse has said
}

bool Recovery::restoreImage() {
  std::string error;
  const ImageRestore result =
      restoreDatabaseImage(startUp_->report().events, startUp_->report().streams, &error);
  if (result == ImageRestore::kFailed) fail(error);
  if (result == ImageRestore::kUnusable) report_.problems.push_back(error);
  report_.fromImage = result == ImageRestore::kRestored;
  return report_.fromImage;
}

// A process that dies with the database locked keeps it locked for all others. Nobody but this
// program can know that no one still relies on it: no server runs, none can start meanwhile, and no
// session is open.
bool Recovery::freeDatabase() {
  pid_t holder = 0;
  if (DatabaseGate::look(&holder) != DatabaseGate::State::kHolderDead) return true;
  if (tryAllChannels() != FileLock::Outcome::kTaken) return fail(kErrLockOfDead);
  if (!DatabaseGate::releaseDead()) return true;
  report_.problems.push_back("the database was locked by process " + std::to_string(holder) +
                             ", which is gone; it was set free");
  return true;
}

// From its image, or anew.
bool Recovery::rows() {
  if (restoreImage()) {
    startUp_->forget();
    return true;
  }
  if (!report_.ok()) return false;
  report_.startUp = startUp_->rebuild();
  return report_.startUp.ok() || fail(report_.startUp.error);
}

bool Recovery::journalManage() { return CDbRestore().recoverJournalManage() == 0; }

// Of the chunks as they were found, the channels are set again.
int Recovery::knownChannels() const {
  if (omitted("channels")) return 0;
  return static_cast<int>(channels_.size());
}

bool Recovery::streamManage() {
  return CDbRestore().recoverStreamManage(channels_.data(), knownChannels(), lost_) == 0;
}

bool Recovery::syslogManage() {
  std::string unread;
  if (CDbRestore().recoverSyslogManage(&unread) != 0) return false;
  if (!unread.empty()) {
    report_.problems.push_back("the system log cannot be read (" + unread +
                               "); its end stays where it was saved");
  }
  return true;
}

}  // namespace tarn
