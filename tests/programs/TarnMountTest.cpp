// A card that is mounted, through the kernel, as users do it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "media/MoviePieces.h"
#include "recorder/RecorderRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;

ShellResult tarn(const std::string& arguments) {
  return shell("timeout 120 " TARN_BIN_DIR "/tarn " + arguments);
}

class TarnMount : public ::testing::Test {
 protected:
  void SetUp() override {
    if (tarn("mount --help").exitCode != 0) GTEST_SKIP() << "built without media";
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (uint32_t i = 0; i < 60; ++i) {
      Bytes bytes = isKey(i) ? pictureAt(0, true).annexB : Bytes();
      const Bytes rest = pictureBytes(i, 3000);
      bytes.insert(bytes.end(), rest.begin(), rest.end());
      ASSERT_EQ(session.writePicture(bytes.data(), bytes.size(), pictureTime(i), 0, isKey(i)), 0);
    }
    ASSERT_EQ(session.close(), 0);
    ASSERT_EQ(mkdir("/tmp/mnt", 0777), 0);
    const ShellResult works = tarn("mount /tmp/mnt");
    for (const char* lacking : {"/dev/fuse", "libfuse3"}) {
      if (works.exitCode != 0 && works.output.find(lacking) != std::string::npos)
        GTEST_SKIP() << works.output;
    }
    ASSERT_EQ(works.exitCode, 0) << works.output;
  }
  void TearDown() override { shell("fusermount3 -u -z /tmp/mnt 2>/dev/null"); }

  static bool isMounted() {
    return shell("grep -q ' /tmp/mnt ' /proc/self/mountinfo").exitCode == 0;
  }
  // Whoever served it is gone, too.
  static void unmount() {
    const ShellResult result = shell("fusermount3 -u /tmp/mnt");
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_FALSE(isMounted());
    EXPECT_EQ(shell("for i in $(seq 600); do ps -eo args | grep -q '[t]arn.* mount' || exit 0; "
                    "sleep 0.05; done; exit 1")
                  .exitCode,
              0);
  }
  void takeCardAway() {
    rig.stopServer();
    CDbLog::getInstance()->finish();
    ASSERT_EQ(shell("cp /dev/sdblk0p1 /tmp/card && rm /dev/sdblk0p1 /tmp/DB.dat").exitCode, 0);
  }

  RecorderRig rig;
  SyslogCapture log;
  const std::string movie = "/tmp/mnt/2023-11-15/ch0/00-13-20.mp4";
};

TEST_F(TarnMount, GivesTheSameBytesEachTimeAndAtAnyPlace) {
  const ShellResult copies =
      shell("cp " + movie + " /tmp/1 && cp " + movie +
            " /tmp/2 && cmp /tmp/1 /tmp/2 && stat -c %s /tmp/1 && stat -c %s " + movie);
  ASSERT_EQ(copies.exitCode, 0) << copies.output;
  EXPECT_EQ(copies.output.substr(0, copies.output.find('\n')),
            copies.output.substr(copies.output.find('\n') + 1, copies.output.find('\n')));
  const ShellResult places = shell(
      "for skip in 0 1 77 4096 65537 100003 150000 189999; do for file in /tmp/1 " + movie +
      "; do dd if=$file bs=1 skip=$skip count=999 status=none | cksum; done; done | uniq | wc -l");
  EXPECT_EQ(places.output, "8\n");
  EXPECT_NE(shell("touch " + movie + " 2>/dev/null").exitCode, 0) << "it is only read";
  EXPECT_NE(shell("rm -f " + movie + " 2>/dev/null").exitCode, 0);
  unmount();
}

TEST_F(TarnMount, ShowsACardThatIsNamedAndLeavesOneThatIsOnlyReadAsItIs) {
  ASSERT_EQ(shell("cp " + movie + " /tmp/1").exitCode, 0);
  unmount();
  takeCardAway();
  const std::string before = shell("sha256sum /tmp/card; stat -c '%Y %Z' /tmp/card").output;
  for (const std::string words :
       {"--read-only mount /tmp/card /tmp/mnt", "--card /tmp/card --read-only mount /tmp/mnt"}) {
    const ShellResult result = tarn(words);
    ASSERT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(shell("cmp /tmp/1 " + movie).exitCode, 0);
    unmount();
  }
  EXPECT_EQ(shell("sha256sum /tmp/card; stat -c '%Y %Z' /tmp/card").output, before);
  ASSERT_EQ(tarn("mount /tmp/card /tmp/mnt").exitCode, 0);
  EXPECT_EQ(shell("cmp /tmp/1 " + movie).exitCode, 0);
  EXPECT_EQ(tarn("list /tmp/card").output,
            "tarn: /tmp/card is in use by another program of the recorder\n");
  unmount();
}

TEST_F(TarnMount, AStopUnmounts) {
  unmount();
  for (const std::string card : {"", "/tmp/card "}) {
    if (!card.empty()) takeCardAway();
    const ShellResult result = shell(TARN_BIN_DIR "/tarn mount " + card +
                                     "/tmp/mnt --foreground & for i in $(seq 600); do test -e " +
                                     movie + " && break; sleep 0.05; done; test -e " + movie +
                                     " || echo missing; kill $!; wait $!");
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(result.output, "");
    EXPECT_FALSE(isMounted());
  }
}

TEST_F(TarnMount, TellsAProgramWhereItIsMountedOnceItIs) {
  unmount();
  const ShellResult result =
      shell("timeout 120 " TARN_BIN_DIR "/tarn mount /tmp/mnt --json && test -e " + movie);
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_EQ(result.output, "{\n  \"schema\": 1,\n  \"mounted\": \"/tmp/mnt\"\n}\n");
  unmount();
  EXPECT_EQ(shell(TARN_BIN_DIR "/tarn mount /tmp/mnt --json --foreground >/tmp/told & for i in "
                               "$(seq 600); do grep -q '^}' /tmp/told && break; sleep 0.05; done; "
                               "test -e " +
                  movie + " && cat /tmp/told; kill $!; wait $!")
                .output,
            result.output);
}

TEST_F(TarnMount, SaysWhatIsWrong) {
  unmount();
  EXPECT_EQ(tarn("mount").exitCode, 2);
  EXPECT_EQ(tarn("mount").output, "tarn: say where to mount it: tarn mount [CARD] DIR\n");
  EXPECT_EQ(tarn("mount a b c").exitCode, 2);
  EXPECT_EQ(tarn("mount --channel 300 /tmp/mnt").exitCode, 2);
  const ShellResult none = tarn("mount /tmp/nowhere");
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_EQ(none.output, "tarn: cannot mount at /tmp/nowhere: No such file or directory\n");
  EXPECT_EQ(tarn("mount /etc/passwd --json").output,
            "{\"error\":\"/etc/passwd is no directory to mount at\"}\n");
  EXPECT_EQ(tarn("mount /etc/passwd").output, "tarn: /etc/passwd is no directory to mount at\n");
  takeCardAway();
  EXPECT_THAT(tarn("mount /tmp/mnt").output, HasSubstr("use --card CARD"));
  EXPECT_EQ(tarn("mount /tmp/mnt").exitCode, 1);
  EXPECT_FALSE(isMounted());
}

}  // namespace
}  // namespace tarn_test
