#include "video/Record.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <list>
#include <thread>

#include "Console.h"
#include "dblog/CDbLog.h"
#include "media/MonotonicTime.h"
#include "programs/ServiceNotice.h"
#include "video/ChannelRecorder.h"
#include "video/SafetyWatch.h"

namespace tarn::tool {

std::optional<EventRequest> parseEvent(const std::string& text) {
  const size_t at = text.find('@');
  if (at == 0 || at == std::string::npos || at + 1 == text.size()) return std::nullopt;
  if (text.find_first_not_of("0123456789") != at) return std::nullopt;
  errno = 0;
  const unsigned long trigger = std::strtoul(text.c_str(), nullptr, 10);
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str() + at + 1, &end);
  if (errno != 0 || trigger > UINT16_MAX || *end != '\0' || !(seconds >= 0) || seconds > 1e9)
    return std::nullopt;
  return EventRequest{static_cast<uint16_t>(trigger), seconds};
}

namespace {

void runChannel(ChannelRecorder* channel, std::atomic<bool>* good) {
  bool done = false;
  try {
    done = channel->run();
  } catch (const std::exception& error) {
    complain(error.what());
  }
  if (!done) *good = false;
}

// Until the last channel's thread is done.
void watch(const std::list<ChannelRecorder>& channels, const std::atomic<size_t>& running) {
  constexpr useconds_t kLookUs = 100000;
  const int64_t limit = SafetyWatch::limitOfManager();
  SafetyWatch safety(limit, monotonicUs());
  for (; running > 0; usleep(kLookUs)) {
    uint64_t safe = 0;
    for (const ChannelRecorder& channel : channels) safe += channel.safePictures();
    const SafetyWatch::Verdict verdict = safety.look(safe, monotonicUs());
    if (verdict == SafetyWatch::Verdict::kFeed) notifyServiceManager("WATCHDOG=1");
    if (verdict == SafetyWatch::Verdict::kWarn)
      complain("no picture has become safe for " + std::to_string(limit / 2000000) +
               " s; after as long again the service manager starts the recording anew");
  }
}

}  // namespace

int recordMedia(const RecordRequest& request) {
  std::list<ChannelRecorder> channels;
  for (const InputRequest& input : request.inputs) channels.emplace_back(request, input);
  std::atomic<bool> good = true;
  std::atomic<size_t> running = channels.size();
  std::list<std::thread> threads;
  for (ChannelRecorder& channel : channels) {
    threads.emplace_back([&channel, &good, &running] {
      runChannel(&channel, &good);
      --running;
    });
  }
  if (SafetyWatch::limitOfManager() > 0) watch(channels, running);
  for (std::thread& thread : threads) thread.join();
  CDbLog::getInstance()->finish();
  for (ChannelRecorder& channel : channels) channel.report();
  return good ? 0 : 1;
}

}  // namespace tarn::tool
