#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

#include "media/serve/CheckJob.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

using testing::HasSubstr;

std::string told(const tarn::CheckJob& job) {
  tarn::JsonText json;
  job.addTo(&json);
  return json.take();
}

// A check that could not begin would count as under way until the server ends.
TEST(CheckJobTest, WithoutAThreadItIsNotUnderWayAndMayBeginLater) {
  tarn::CheckJob job;
  {
    IoFaults faults;
    faults.fail(Call::ThreadCreate, 1, EAGAIN);
    EXPECT_THROW(job.begin(), std::system_error);
  }
  EXPECT_THAT(told(job), HasSubstr("\"none\""));
  EXPECT_TRUE(job.begin());
  for (int i = 0; i < 1000 && told(job).find("running") != std::string::npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_THAT(told(job), HasSubstr("\"failed\"")) << "there is no card here";
}

}  // namespace
}  // namespace tarn_test
