#include <gmock/gmock.h>
#include <sys/socket.h>

#include <cstdint>

#include "base/Endian.h"
#include "base/UniqueFd.h"
#include "capi/Facts.h"
#include "capi/Message.h"

namespace tarn_test {
namespace {

using tarn::Message;
using tarn::MessageKind;

tarn::SampleFacts sample() {
  tarn::SampleFacts facts;
  facts.index = 0xFFFFFFFF;
  facts.timeUs = TARN_NO_TIME;
  facts.decodeUs = -1;
  facts.flags = TARN_LOST | TARN_KEY;
  facts.samples = 1024;
  facts.codec = "aac";
  facts.channels = 2;
  facts.sampleRate = 48000;
  facts.config = {0x11, 0x90};
  facts.bytes = {0, 1, 2, 0xFF};
  return facts;
}

tarn::VerifyQuestion question() { return {"/a file", {"", "one", "another"}}; }

template <typename Facts>
std::vector<uint8_t> again(const Message& message) {
  Facts facts;
  EXPECT_TRUE(message.take(&facts));
  return Message(message.kind, facts).body;
}

TEST(Message, EveryFieldComesBackAsItWas) {
  const Message one(MessageKind::kSample, sample());
  tarn::SampleFacts facts;
  ASSERT_TRUE(one.take(&facts));
  EXPECT_EQ(facts.index, 0xFFFFFFFF);
  EXPECT_EQ(facts.timeUs, TARN_NO_TIME);
  EXPECT_EQ(facts.decodeUs, -1);
  EXPECT_EQ(facts.flags, uint32_t{TARN_LOST | TARN_KEY});
  EXPECT_EQ(facts.codec, "aac");
  EXPECT_THAT(facts.config, testing::ElementsAre(0x11, 0x90));
  EXPECT_THAT(facts.bytes, testing::ElementsAre(0, 1, 2, 0xFF));
  EXPECT_EQ(again<tarn::SampleFacts>(one), one.body);
  const Message two(MessageKind::kVerify, question());
  EXPECT_EQ(again<tarn::VerifyQuestion>(two), two.body);
  tarn::RecordingFacts recording;
  recording.zoneSeconds = -3600;
  recording.kept = true;
  recording.codec = "h264";
  const Message three(MessageKind::kRecording, recording);
  EXPECT_EQ(again<tarn::RecordingFacts>(three), three.body);
}

template <typename Facts>
void refuseWhatIsCutOrLies(const Message& whole) {
  Facts facts;
  for (size_t length = 0; length < whole.body.size(); ++length) {
    Message cut(whole.kind);
    cut.body.assign(whole.body.begin(), whole.body.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_FALSE(cut.take(&facts)) << length;
  }
  Message more = whole;
  more.body.push_back(0);
  EXPECT_FALSE(more.take(&facts));
  // Any number may be a length, and of any size.
  for (size_t at = 0; at + 8 <= whole.body.size(); ++at) {
    for (const uint64_t lie : {UINT64_MAX, uint64_t{1} << 63, uint64_t{1} << 32, uint64_t{256}}) {
      Message lying = whole;
      lying.body = whole.body;
      tarn::putLe64(lying.body.data() + at, lie);
      lying.take(&facts);  // true or false, and within its bytes: the sanitizers look on
    }
  }
}

TEST(Message, WhatIsCutOrLiesAboutItsLengthsIsNotBelieved) {
  refuseWhatIsCutOrLies<tarn::SampleFacts>(Message(MessageKind::kSample, sample()));
  refuseWhatIsCutOrLies<tarn::VerifyQuestion>(Message(MessageKind::kVerify, question()));
  refuseWhatIsCutOrLies<tarn::ExportQuestion>(
      Message(MessageKind::kExport, tarn::ExportQuestion()));
}

class MessageSocket : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near.reset(ends[0]);
    far.reset(ends[1]);
  }
  tarn::UniqueFd near;
  tarn::UniqueFd far;
};

TEST_F(MessageSocket, ComesWholeOrNotAtAll) {
  const Message sent(MessageKind::kSample, sample());
  ASSERT_TRUE(sent.send(near.get()));
  Message got;
  ASSERT_TRUE(got.receive(far.get()));
  EXPECT_EQ(got.kind, sent.kind);
  EXPECT_EQ(got.body, sent.body);
  ASSERT_EQ(::send(near.get(),
                   "\x09\x00\x00\x00\x40"
                   "half",
                   9, 0),
            9);
  near.reset();
  EXPECT_FALSE(got.receive(far.get()));
  EXPECT_FALSE(sent.send(far.get())) << "and no signal";
}

TEST_F(MessageSocket, WantsNoMemoryForALengthThatNobodyHas) {
  ASSERT_EQ(::send(near.get(), "\xFF\xFF\xFF\xFF\x40", 5, 0), 5);
  Message got;
  EXPECT_FALSE(got.receive(far.get()));
  EXPECT_LT(got.body.capacity(), Message::kMostBytes);
}

}  // namespace
}  // namespace tarn_test
