// Connection, semaphore and the life of both.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kFailed = 0xFFFFFFFF;

int semaphoreId() { return semget(ftok("/bin/cp", 1), 1, 0666); }
int semaphoreValue() { return semctl(semaphoreId(), 0, GETVAL); }

// Runs `work` in a child process and returns its exit status, -1 for any other end.
int inChild(const std::function<int()>& work) {
  const pid_t pid = fork();
  if (pid == 0) _exit(work());
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Semaphore, FirstObjectMakesTheSetWithValueOneAndAStampedOperation) {
  ASSERT_EQ(-1, semaphoreId());
  CApiDb db;
  ASSERT_NE(-1, semaphoreId());
  EXPECT_EQ(1, semaphoreValue());
  semid_ds info = {};
  ASSERT_EQ(0, semctl(semaphoreId(), 0, IPC_STAT, &info));
  EXPECT_EQ(1u, info.sem_nsems);
  EXPECT_EQ(0666u, info.sem_perm.mode & 0777u);
  EXPECT_NE(0, info.sem_otime);
}

TEST(Semaphore, LaterObjectsUseTheSetAndNoneRemovesIt) {
  {
    CApiDb first;
    CApiDb second;
    EXPECT_EQ(0u, first.lockSem());
    EXPECT_EQ(0, semaphoreValue());
    EXPECT_EQ(0u, second.unlockSem());
  }
  EXPECT_EQ(1, semaphoreValue());
}

TEST(Semaphore, OthersWaitUntilTheMakerHasRaisedIt) {
  const int key = ftok("/bin/cp", 2);
  const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_NE(-1, id);
  CApiDb db;
  std::thread maker([&] {
    usleep(20000);
    sembuf raise = {0, 1, 0};
    semop(id, &raise, 1);
  });
  EXPECT_EQ(0u, db.createSem(key));
  semid_ds info = {};
  EXPECT_EQ(0, semctl(id, 0, IPC_STAT, &info));
  EXPECT_NE(0, info.sem_otime);
  maker.join();
}

TEST(Semaphore, SetRemovedWhileAnObjectWaitsForItFailsInsteadOfHanging) {
  const int key = ftok("/bin/cp", 2);
  const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
  ASSERT_NE(-1, id);
  CApiDb db;
  std::thread remover([&] {
    usleep(200000);
    semctl(id, 0, IPC_RMID);
  });
  EXPECT_EQ(kFailed, db.createSem(key));
  remover.join();
  EXPECT_EQ(kFailed, db.lockSem());
}

TEST(Semaphore, ThatCannotBeMadeIsLoggedOnceAndLaterLocksFail) {
  DbTrace trace;
  DbTrace::failSets(true);
  CApiDb db;
  EXPECT_THAT(trace.take(), ElementsAre("log 3: SQLite_SEM.init error!!!"));
  DbTrace::failSets(false);
  EXPECT_EQ(kFailed, db.lockSem());
  EXPECT_EQ(kFailed, db.unlockSem());
  EXPECT_EQ(0u, db.setSql("SELECT 6"));
  EXPECT_EQ(6u, db.getValue(0, 0));
  EXPECT_THAT(trace.take("log "), ElementsAre("3: cannot lock SQLite_SEM connec(/tmp/DB.dat)",
                                              "3: cannot lock SQLite_SEM SQL(SELECT 6)"));
}

TEST(Semaphore, ManyProcessesAtOnceAgreeOnOneSetAndExcludeEachOther) {
  // Each child adds 1 to a file's number 50 times, reading and writing in two steps.
  FILE* file = fopen("/tmp/counter", "w");
  ASSERT_NE(nullptr, file);
  fputs("0", file);
  fclose(file);
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    const pid_t pid = fork();
    if (pid == 0) {
      CApiDb db;
      for (int n = 0; n < 50; ++n) {
        if (db.lockSem() != 0) _exit(1);
        FILE* counter = fopen("/tmp/counter", "r+");
        int value = 0;
        if (counter == nullptr || fscanf(counter, "%d", &value) != 1) _exit(2);
        rewind(counter);
        fprintf(counter, "%d", value + 1);
        fclose(counter);
        if (db.unlockSem() != 0) _exit(3);
      }
      _exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, status);
  }
  int value = 0;
  file = fopen("/tmp/counter", "r");
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(1, fscanf(file, "%d", &value));
  fclose(file);
  EXPECT_EQ(400, value);
  EXPECT_EQ(1, semaphoreValue());
}

TEST(Semaphore, ProcessThatDiesHoldingTheLockLeavesItLocked) {
  CApiDb db;
  EXPECT_EQ(7, inChild([] {
              CApiDb holder;
              return holder.lockSem() == 0 ? 7 : 1;
            }));
  EXPECT_EQ(0, semaphoreValue());
  sembuf tryLock = {0, -1, IPC_NOWAIT};
  EXPECT_EQ(-1, semop(semaphoreId(), &tryLock, 1));
  EXPECT_EQ(EAGAIN, errno);
}

// Takes the lock in another process for `ms`, and waits for it here meanwhile.
std::vector<LogLine> linesOfAWait(int ms) {
  SyslogCapture log;
  CApiDb db;
  int ready[2];
  EXPECT_EQ(0, pipe(ready));
  const pid_t pid = fork();
  if (pid == 0) {
    CApiDb holder;
    holder.lockSem();
    [[maybe_unused]] const ssize_t written = write(ready[1], "x", 1);
    usleep(static_cast<useconds_t>(ms) * 1000);
    holder.unlockSem();
    _exit(0);
  }
  char byte;
  EXPECT_EQ(1, read(ready[0], &byte, 1));
  EXPECT_EQ(0u, db.lockSem());
  EXPECT_EQ(0u, db.unlockSem());
  int status;
  waitpid(pid, &status, 0);
  close(ready[0]);
  close(ready[1]);
  return log.lines();
}

TEST(SemaphoreWait, OfOneSecondIsAWarning) {
  const std::vector<LogLine> lines = linesOfAWait(1100);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(4, lines[0].priority);
  EXPECT_THAT(lines[0].text, testing::MatchesRegex("Long SemLock = \\[[12]\\.[0-9][0-9]\\]"));
}

TEST(SemaphoreWait, OfThreeSecondsIsAnError) {
  const std::vector<LogLine> lines = linesOfAWait(3100);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(3, lines[0].priority);
  EXPECT_THAT(lines[0].text,
              testing::MatchesRegex("Long SemLock = \\[[3-9]\\.[0-9][0-9]\\]!!!!!!!!!!!!!!!"));
}

TEST(SemaphoreWait, BelowOneSecondIsNotLogged) { EXPECT_THAT(linesOfAWait(50), IsEmpty()); }

TEST_F(DbTest, ConstructionDoesNotConnect) {
  DbTrace trace;
  CApiDb db;
  EXPECT_FALSE(db.isConnected());
  EXPECT_THAT(trace.take(), IsEmpty());
  EXPECT_EQ(0u, db.getNTuple());
  EXPECT_EQ(0u, db.getNColumn());
}

TEST_F(DbTest, ConnectOpensUnderTheLock) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.connect(kDbPath));
  EXPECT_THAT(trace.take(), ElementsAre("lock", "open /tmp/DB.dat", "unlock"));
  EXPECT_TRUE(db_.isConnected());
}

TEST_F(DbTest, SecondConnectKeepsTheConnection) {
  db_.connect(kDbPath);
  db_.setSqlNoResult("CREATE TEMP TABLE MARK( n )");
  DbTrace trace;
  EXPECT_EQ(0u, db_.connect("/tmp/other.dat"));
  EXPECT_THAT(trace.take(), IsEmpty());
  EXPECT_NE(0, access("/tmp/other.dat", F_OK));
  db_.setSql("SELECT COUNT(*) FROM temp.MARK");
  EXPECT_EQ(1u, db_.getNTuple());
}

TEST_F(DbTest, StatementAfterFinishGoesToTheRecordersDatabaseWhateverWasConnected) {
  db_.connect(kDbPath);
  db_.connect("/tmp/other.dat");
  EXPECT_EQ(0u, db_.finish());
  // A statement on an unconnected object always goes to the recorder's database.
  DbTrace trace;
  db_.setSqlNoResult("SELECT 1");
  EXPECT_THAT(trace.take("open "), ElementsAre("/tmp/DB.dat"));
}

TEST_F(DbTest, ConnectCutsAPathThatIsTooLong) {
  const std::string longest = "/tmp/" + std::string(122, 'a');
  DbTrace trace;
  EXPECT_EQ(0u, db_.connect((longest + "bbbb").c_str()));
  EXPECT_THAT(trace.take("open "), ElementsAre(longest));
  CApiDb exact;
  exact.connect(longest.c_str());
  EXPECT_THAT(trace.take("open "), ElementsAre(longest));
}

TEST_F(DbTest, ConnectThatCannotOpenIsLoggedAndReturnsZero) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.connect("/tmp/none/DB.dat"));
  EXPECT_FALSE(db_.isConnected());
  EXPECT_THAT(trace.take(),
              ElementsAre("lock", "open /tmp/none/DB.dat",
                          "log 3: backend connection failed  [CONNECTON_BAD: /tmp/none/DB.dat] "
                          "unable to open database file",
                          "close", "unlock"));
  EXPECT_EQ(0u, db_.connect(kDbPath));
  EXPECT_TRUE(db_.isConnected());
}

TEST_F(DbTest, ConnectWithoutTheLockIsLoggedAndGoesOn) {
  DbTrace trace;
  DbTrace::failLocks(true);
  EXPECT_EQ(0u, db_.connect(kDbPath));
  EXPECT_THAT(trace.take(),
              ElementsAre("lock fails", "log 3: cannot lock SQLite_SEM connec(/tmp/DB.dat)",
                          "open /tmp/DB.dat"));
  EXPECT_TRUE(db_.isConnected());
}

TEST_F(DbTest, StatementOnAnUnconnectedObjectConnectsToTheRecordersDatabase) {
  DbTrace trace;
  db_.setSql("SELECT 1");
  EXPECT_THAT(trace.take(), ElementsAre("lock", "open /tmp/DB.dat", "unlock", "lock",
                                        "table SELECT 1", "unlock"));
  CApiDb other;
  other.setSqlNoResult("SELECT 2");
  EXPECT_THAT(trace.take("open "), ElementsAre("/tmp/DB.dat"));
}

TEST_F(DbTest, FinishOnAnUnconnectedObjectDoesNothing) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.finish());
  EXPECT_EQ(0u, db_.finish());
  EXPECT_THAT(trace.take(), IsEmpty());
}

TEST_F(DbTest, FinishClosesOnceUnderTheLockAndReleasesTheResult) {
  db_.setSql("SELECT 5");
  DbTrace trace;
  EXPECT_EQ(0u, db_.finish());
  EXPECT_EQ(0u, db_.finish());
  EXPECT_FALSE(db_.isConnected());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "close", "unlock"));
  EXPECT_EQ(0u, db_.getValue(0, 0));
  EXPECT_THAT(trace.take(), ElementsAre("log 3:  Column or Row over: [1<0||1<0]"));
}

TEST_F(DbTest, DestructionCloses) {
  DbTrace trace;
  {
    CApiDb db;
    db.connect(kDbPath);
    trace.take();
  }
  EXPECT_THAT(trace.take(), ElementsAre("lock", "close", "unlock"));
}

TEST_F(DbTest, FinishIgnoresALockThatFails) {
  db_.connect(kDbPath);
  DbTrace trace;
  DbTrace::failLocks(true);
  EXPECT_EQ(0u, db_.finish());
  EXPECT_THAT(trace.take(), ElementsAre("lock fails", "close"));
  EXPECT_FALSE(db_.isConnected());
}

TEST_F(DbTest, OperationsThatNeedAConnectionYieldZeroWithoutOne) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.getCmdTuple());
  EXPECT_EQ(0u, db_.getStatus());
  EXPECT_THAT(trace.take("changes"), IsEmpty());
  // The recorder's database cannot be opened: a folder has its name.
  ASSERT_EQ(0, unlink(kDbPath));
  ASSERT_EQ(0, mkdir(kDbPath, 0755));
  DB_EVENT event = {};
  EXPECT_EQ(0u, db_.insertEvent(&event));
  EXPECT_EQ(0u, event.eventID);
  EXPECT_EQ(0u, db_.selectCount(1, 2, 0));
  EXPECT_EQ(0u, db_.setSql("SELECT 1"));
  EXPECT_EQ(0u, db_.getNTuple());
  EXPECT_EQ(0u, db_.getCmdTuple());
}

TEST_F(DbTest, EachStatementTriesToOpenAgainAfterAFailedOpen) {
  ASSERT_EQ(0, unlink(kDbPath));
  ASSERT_EQ(0, mkdir(kDbPath, 0755));
  DbTrace trace;
  db_.setSql("SELECT 1");
  EXPECT_THAT(trace.take("open "), ElementsAre(kDbPath));
  ASSERT_EQ(0, rmdir(kDbPath));
  db_.setSql("SELECT 1");
  EXPECT_THAT(trace.take("open "), ElementsAre(kDbPath));
  EXPECT_EQ(1u, db_.getNTuple());
}

}  // namespace
