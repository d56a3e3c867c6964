#include "Console.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <ctime>

#include "mesg/RequestPatience.h"

namespace tarn {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// A terminal, or a program that ends us and our group, may send two for one: those are one request.
constexpr uint32_t kOneRequestMs = 500;

volatile sig_atomic_t g_stop = 0;
std::atomic<uint32_t> g_stoppedAt{0};  // by the monotonic clock, which may wrap

uint32_t monotonicMs() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint32_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

ComplaintForm g_form = nullptr;

std::string lineOf(const char* kind, const std::string& text) {
  const std::string seen = asUserSees(text);
  return (g_form != nullptr ? g_form(kind, seen) : "tarn: " + seen) + "\n";
}

void say(const char* kind, const std::string& text) { fputs(lineOf(kind, text).c_str(), stderr); }

void onStopSignal(int signal) {
  if (g_stop == 0) g_stoppedAt = monotonicMs();
  if (g_stop != 0 && signal == SIGINT && monotonicMs() - g_stoppedAt >= kOneRequestMs) {
    _exit(128 + SIGINT);
  }
  g_stop = 1;
  RequestPatience::hurry();
}

// Factor of a size's unit; 0 for one that is not known.
uint64_t unitFactor(std::string unit) {
  for (char& c : unit) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  static constexpr const char* kForms[] = {"", "B", "IB"};
  uint64_t factor = 1024;
  for (const char* letter : {"K", "M", "G", "T"}) {
    for (const char* form : kForms) {
      if (unit == std::string(letter) + form) return factor;
    }
    factor *= 1024;
  }
  return unit.empty() || unit == "B" ? 1 : 0;
}

}  // namespace

std::string asUserSees(std::string text) {
  const std::string prefix = std::string(kOutsideTmp) + "/";
  for (size_t at; (at = text.find(prefix)) != std::string::npos;) {
    text.replace(at, prefix.size(), "/tmp/");
  }
  return text;
}

std::string complaint(const std::string& text) { return lineOf("error", text); }
void complain(const std::string& text) { say("error", text); }
void warn(const std::string& text) { say("warning", text); }
void complainAs(ComplaintForm form) { g_form = form; }

std::string withShortNumbers(const std::string& text) {
  constexpr size_t kMostDigits = 20;
  std::string shown;
  size_t digits = 0;
  for (const char c : text) {
    digits = isdigit(static_cast<unsigned char>(c)) != 0 ? digits + 1 : 0;
    if (digits <= kMostDigits) shown += c;
    if (digits == kMostDigits + 1) shown += "...";
  }
  return shown;
}

ProgressLine::ProgressLine() : terminal_(isatty(STDERR_FILENO) != 0) {}

ProgressLine::~ProgressLine() {
  if (!shown_.empty()) fprintf(stderr, "\r%*s\r", static_cast<int>(shown_.size()), "");
}

void ProgressLine::show(const std::string& text) {
  if (!terminal_ || text == shown_) return;
  fprintf(stderr, "\r%-*s", static_cast<int>(shown_.size()), text.c_str());
  fflush(stderr);
  shown_ = text;
}

void catchStopSignals() {
  struct sigaction action = {};
  action.sa_handler = onStopSignal;
  for (int signal : kStopSignals) sigaction(signal, &action, nullptr);
}

bool stopRequested() { return g_stop != 0; }

void resetStopSignals() {
  for (int number : kStopSignals) signal(number, SIG_DFL);
}

bool parseSize(const std::string& text, uint64_t* bytes) {
  size_t digits = 0;
  uint64_t value = 0;
  for (; digits < text.size() && isdigit(static_cast<unsigned char>(text[digits])); ++digits) {
    const auto digit = static_cast<uint64_t>(text[digits] - '0');
    if (value > (UINT64_MAX - digit) / 10) return false;
    value = value * 10 + digit;
  }
  const uint64_t factor = unitFactor(text.substr(digits));
  if (digits == 0 || factor == 0 || value > UINT64_MAX / factor) return false;
  *bytes = value * factor;
  return true;
}

}  // namespace tarn
