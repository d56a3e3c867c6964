#include <gmock/gmock.h>

#include <fstream>

#include "media/record/RecordConfig.h"

namespace {

using tarn::RecordRequest;

constexpr char kFile[] = "/tmp/record.conf";

// What is wrong with a configuration, without its name in front; "" when it was read.
std::string read(const std::string& text, RecordRequest* request) {
  std::ofstream(kFile) << text;
  std::string error;
  if (tarn::readRecordConfig(kFile, request, &error)) return "";
  EXPECT_EQ(error.rfind(kFile, 0), 0u) << error;
  return error.substr(sizeof kFile - 1);
}

std::string fault(const std::string& text) {
  RecordRequest request;
  return read(text, &request);
}

TEST(RecordConfig, SaysWhatIsRecordedAndHow) {
  RecordRequest request;
  ASSERT_EQ(
      read("# two cameras\n[recording]\n segment = 30\nflush=500\nfps = 12.5\ntimes = stream\n"
           "\n[channel 7]\ninput = rtsp://192.0.2.1/a=b\n[channel 0]\ninput = -\r\n",
           &request),
      "");
  EXPECT_EQ(request.segmentSeconds, 30u);
  EXPECT_EQ(request.flushMs, 500u);
  EXPECT_EQ(request.frameRate, 12.5);
  EXPECT_EQ(request.times, tarn::TimesFrom::kStream);
  ASSERT_EQ(request.inputs.size(), 2u);
  EXPECT_EQ(request.inputs[0].channel, 7);
  EXPECT_EQ(request.inputs[0].input, "rtsp://192.0.2.1/a=b");
  EXPECT_EQ(request.inputs[1].channel, 0);
  EXPECT_EQ(request.inputs[1].input, "-");
}

TEST(RecordConfig, NamesTheLineThatIsWrong) {
  EXPECT_EQ(fault("[channel 1]\nsegment = 5\n"), ":2: segment is not known in [channel N]");
  EXPECT_EQ(fault("input = a\n"), ":1: input stands in no section");
  EXPECT_EQ(fault("[recording]\nsegment\n"), ":2: expected KEY = VALUE or [SECTION]");
  EXPECT_EQ(fault("[recording]\nflush = 0\n"), ":2: flush: expected 1 to 60000 milliseconds");
  EXPECT_EQ(fault("[channel 1]\ninput = a\n[channel 1]\n"), ":3: channel 1 is there twice");
  EXPECT_EQ(fault("[channel 128]\n"),
            ":1: [channel 128] is no section; there are [recording] and [channel 0] to "
            "[channel 127]");
  EXPECT_EQ(fault("[channel 1]\n[channel 2]\n"), ":2: channel 1 has no input");
  EXPECT_EQ(fault("[channel 1]\ninput = -\n[channel 2]\ninput = -\n"),
            ":4: standard input is there twice");
}

TEST(RecordConfig, OneWithoutAChannelRecordsNothing) {
  EXPECT_EQ(fault(""), ": there is no [channel N] to record");
  EXPECT_EQ(fault("[channel 3]\n"), ": channel 3 has no input");
  std::string error;
  RecordRequest request;
  EXPECT_FALSE(tarn::readRecordConfig("/tmp/none", &request, &error));
  EXPECT_EQ(error, "cannot open /tmp/none: No such file or directory");
}

TEST(RecordConfig, AByteZeroIsNoPartOfAnyLine) {
  EXPECT_EQ(fault(std::string("[channel 0]\ninput = a.mp4\0b\n", 28)),
            ":2: this line has a byte 0 in it");
  EXPECT_EQ(fault(std::string("[recording]\nsegment = 30\0junk\n", 31)),
            ":2: this line has a byte 0 in it");
}

TEST(RecordRequest, OneThatContradictsItselfIsRefused) {
  RecordRequest request;
  std::string error;
  EXPECT_FALSE(tarn::checkRecordRequest(request, &error));
  EXPECT_EQ(error, "there is no input");
  request.inputs = {{"a.mp4", 1}, {"b.mp4", 1}};
  EXPECT_FALSE(tarn::checkRecordRequest(request, &error));
  EXPECT_EQ(error, "channel 1 is given to two inputs");
  request.inputs = {{"-", 1}, {"-", 2}};
  EXPECT_FALSE(tarn::checkRecordRequest(request, &error));
  EXPECT_EQ(error, "standard input can be recorded on one channel only");
  request.inputs = {{"a.mp4", 128}};
  EXPECT_FALSE(tarn::checkRecordRequest(request, &error));
  EXPECT_EQ(error, "channels are 0 to 127");
  request.inputs = {{"rtsp://192.0.2.1/a", 1}};
  request.loop = 2;
  EXPECT_FALSE(tarn::checkRecordRequest(request, &error));
  EXPECT_EQ(error, "only files can be recorded more than once");
  request.inputs = {{"a.mp4", 127}, {"b.mp4", 0}};
  EXPECT_TRUE(tarn::checkRecordRequest(request, &error));
}

}  // namespace
