#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "media/serve/AccessToken.h"
#include "media/serve/ConnectionWatch.h"
#include "media/serve/ListenPlace.h"

namespace tarn_test {
namespace {

using tarn::AccessToken;
using Verdict = AccessToken::Verdict;

constexpr char kFile[] = "/tmp/token";
constexpr char kGood[] = "Bearer 0123456789abcdef";

void writeToken(const std::string& text, mode_t mode = 0600) {
  unlink(kFile);
  std::ofstream(kFile) << text;
  ASSERT_EQ(chmod(kFile, mode), 0);
}

TEST(AccessToken, SameTellsTextsApart) {
  EXPECT_TRUE(AccessToken::same("abc", "abc"));
  EXPECT_TRUE(AccessToken::same("", ""));
  for (const char* other : {"", "a", "ab", "abd", "Abc", "abcabc", "abca"}) {
    EXPECT_FALSE(AccessToken::same("abc", other)) << other;
    EXPECT_FALSE(AccessToken::same(other, "abc")) << other;
  }
}

TEST(AccessToken, TheFirstLineCountsAndAFileForAllIsRefused) {
  AccessToken token;
  std::string error;
  EXPECT_FALSE(token.read("/tmp/none", &error));
  writeToken("0123456789abcde\nlonger than this line\n");
  EXPECT_FALSE(token.read(kFile, &error)) << "15 characters";
  EXPECT_TRUE(token.isNone());
  writeToken(std::string(1025, 'a'));
  EXPECT_FALSE(token.read(kFile, &error));
  writeToken("0123456789abcdef\r\nmore", 0640);
  EXPECT_FALSE(token.read(kFile, &error));
  EXPECT_EQ(error, "others may read the token file /tmp/token: chmod 600 it");
  writeToken("0123456789abcdef\r\nmore");
  ASSERT_TRUE(token.read(kFile, &error)) << error;
  EXPECT_EQ(token.judge(kGood, "a", 0), Verdict::kGood);
  EXPECT_EQ(token.judge("bearer 0123456789abcdef", "a", 0), Verdict::kGood);
  // "me:0123456789abcdef"
  EXPECT_EQ(token.judge("Basic bWU6MDEyMzQ1Njc4OWFiY2RlZg==", "a", 0), Verdict::kGood);
  for (const char* other : {"Bearer 0123456789abcdeF", "Bearer ", "Basic ", "Basic bWU=",
                            "0123456789abcdef", "Basic \xFF\xFF", "Digest 0123456789abcdef"}) {
    EXPECT_EQ(token.judge(other, other, 0), Verdict::kWrong) << other;
  }
}

TEST(AccessToken, AnAddressThatGuessesIsShutOutForAMinute) {
  AccessToken token;
  std::string error;
  writeToken("0123456789abcdef");
  ASSERT_TRUE(token.read(kFile, &error));
  for (int i = 0; i < AccessToken::kTries; ++i)
    EXPECT_EQ(token.judge("Bearer guess", "a", 1000), Verdict::kWrong);
  EXPECT_EQ(token.judge(kGood, "a", 60999), Verdict::kTooManyTries);
  EXPECT_EQ(token.judge(kGood, "b", 60999), Verdict::kGood) << "somebody else";
  EXPECT_EQ(token.judge("", "a", 60999), Verdict::kWrong) << "no guess";
  EXPECT_EQ(token.judge(kGood, "a", 61000), Verdict::kGood);
}

TEST(AccessToken, WithoutOneEverybodyIsLetIn) {
  AccessToken token;
  EXPECT_EQ(token.judge("", "a", 0), Verdict::kGood);
}

TEST(ListenPlace, TakesNumbersOnly) {
  tarn::ListenPlace place;
  std::string error;
  for (const char* text : {"", "8420", ":8420", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536",
                           "127.0.0.1:-1", "127.0.0.1:8420x", "::1:8420", "[127.0.0.1]:1", "[::1",
                           "example.org:1", "1.2.3:1", "127.0.0.1:000001"}) {
    EXPECT_FALSE(place.parse(text, &error)) << text;
  }
  for (const char* text : {"127.0.0.1:0", "localhost:1", "127.9.9.9:65535", "[::1]:8420"}) {
    EXPECT_TRUE(place.parse(text, &error)) << text;
    EXPECT_TRUE(place.isLoopback()) << text;
  }
  for (const char* text : {"0.0.0.0:1", "128.0.0.1:1", "[::]:1", "[::ffff:7f00:1]:1"}) {
    EXPECT_TRUE(place.parse(text, &error)) << text;
    EXPECT_FALSE(place.isLoopback()) << text;
  }
}

// The other end of a socket pair is a client that takes its time.
TEST(ConnectionWatch, WhoeverTakesTooLongIsCutOff) {
  tarn::ConnectionWatch watch(20, 20);
  int slow[2], listening[2], left[2];
  for (int* pair : {slow, listening, left}) ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  watch.opened(&slow, slow[0]);
  watch.opened(&listening, listening[0]);
  watch.enters(&listening, tarn::ConnectionWatch::Phase::kListening);
  watch.opened(&left, left[0]);
  watch.closed(&left);
  watch.start();
  char byte;
  EXPECT_EQ(read(slow[1], &byte, 1), 0) << "its end is told, however late";
  watch.stop();
  for (int* pair : {listening, left}) {
    EXPECT_EQ(recv(pair[1], &byte, 1, MSG_DONTWAIT), -1) << "nobody else's is";
  }
  for (int* pair : {slow, listening, left}) {
    close(pair[0]);
    close(pair[1]);
  }
}

}  // namespace
}  // namespace tarn_test
