#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "fat/ChunkFiles.h"
#include "manager/ChunkRecords.h"
#include "recorder/recovery/RecoveryReport.h"

struct DB_STREAM;

namespace tarn {

class FileLock;
class StartUp;
struct FuseFinding;

// What a recorder runs first when it starts, before its management server: whatever happened to the
// power before, the card and the database are consistent afterwards, with everything that had
// reached the card.
//
//   tarn::Recovery recovery;
//   const tarn::RecoveryReport report = recovery.run();
//   if (!report.ok()) return complain(report.error);
//
// Steps, each needed by the next: the card's geometry (a card that is not what it says it is, is
// not written to); management files; both journals made equal; database (its image after a clean
// stop, else an empty one, the journals replayed, counted); free offsets of the journal; rows that
// were left open; open events; stream headers; management data of stream chunks and system log;
// flush of the card.
//
// Where it would give up recordings in bulk a fuse (recorder/recovery/RecoveryFuse.h) stops it,
// unless the policy says otherwise.
//
// Running it again changes nothing on the card, and after a power loss during it the next run ends
// in the same state. No management server may run: it is kept out meanwhile. The work grows with
// the rows, not with the size of the card. Used by one thread; nothing throws.
class TARN_API Recovery {
 public:
  explicit Recovery(FusePolicy policy = FusePolicy::kStop);
  ~Recovery();
  Recovery(const Recovery&) = delete;
  Recovery& operator=(const Recovery&) = delete;

  // An attempt that ends with an error is followed by up to two others.
  RecoveryReport run();
  // For whoever waits and wants to see for what: called in front of each step of every recovery of
  // this process, in its thread, with a few words; must not throw. Null: nobody. Any thread.
  using StepTeller = void (*)(const char* step);
  static void tellSteps(StepTeller teller);

  // For a clean stop, when the server and everything else has ended: saves the database into its
  // image on the card, from which the next start takes it. 0; -1 with the reason in *error, and the
  // next start rebuilds the database from the journal: no loss, only time. Refused, with the card
  // left alone, while a server or a recording session runs and where there is no database.
  int saveImage(std::string* error);
  // The same for who has only read: the image that the database came from is good again, unless it
  // is not the database's any more; then -1. None is written, so that it takes neither time nor
  // room.
  int keepImage(std::string* error);

 private:
  struct Step;

  int leaveImage(bool anew, std::string* error);
  void attempt();
  void keepChanges(const RecoveryReport& before);
  bool keepServerOut(const char* refusal, std::string* error);
  bool mayTryAgain() const;
  bool take(const Step& step);
  bool takeTimed(const Step& step);
  bool geometry();
  bool manageFiles();
  bool fuseManageFiles(std::vector<CHUNK_MANAGE>* anew);
  bool fuseChunks();
  bool headers();
  bool keepLost(const std::vector<DB_STREAM>& lost);
  bool fuseJournals(const StartUp& startUp);
  bool guardForgotten();
  bool blow(const FuseFinding& finding);
  void guardChunks(const std::vector<uint32_t>& chunks, std::vector<CHUNK_MANAGE>* records) const;
  void noteGuarded();
  bool freeDatabase();
  bool database();
  bool journals();
  bool rows();
  bool restoreImage();
  bool journalManage();
  bool redating();
  bool overtakenRows();
  bool videoRows();
  bool remainingRows();
  bool events();
  bool manageFile(FileType type, ManageRepair* repair, std::vector<CHUNK_MANAGE>* records);
  bool manageData();
  int knownChannels() const;
  bool streamManage();
  bool syslogManage();
  bool countRows();
  bool flushCard();
  bool fail(const std::string& text);

  const FusePolicy policy_;
  std::unique_ptr<FileLock> lock_;
  std::unique_ptr<StartUp> startUp_;  // of the attempt
  RecoveryReport report_;
  // Of the stream chunks, as they were found, but for the marks of guarded ones.
  std::vector<CHUNK_MANAGE> channels_;
  bool journalsLost_ = false;    // in part, and the fuse let it pass
  std::vector<DB_STREAM> lost_;  // rows that stay although nothing of them can be read
};

}  // namespace tarn
