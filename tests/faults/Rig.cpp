#include "Rig.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>

#include "Content.h"

namespace faults {
namespace {

constexpr size_t kCardBytes = 40 * 1024 * 1024;
constexpr uint32_t kSpeed = 20;
constexpr uint32_t kSpareRows = 60;  // pictures of two rows that a fault may cost in addition
constexpr char kExported[] = "exported.mp4";

Plan* mapPlan(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(Plan)) != 0) abort();
  void* memory = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) abort();
  return static_cast<Plan*>(memory);
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// Lines without their numbers, which differ from run to run.
std::set<std::string> kindsOfLines(const std::string& text) {
  std::set<std::string> kinds;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::string kind;
    for (const char c : line) {
      const bool digit = c >= '0' && c <= '9' && !kind.empty() && kind[0] == '<' && kind.size() > 2;
      if (digit && kind.back() == '#') continue;
      kind += digit ? '#' : c;
    }
    kinds.insert(kind);
  }
  return kinds;
}

}  // namespace

Rig::Rig(const std::string& binDir) : bin_(binDir), work_(kWork) {
  mkdir(kWork, 0700);
  // What a program leaves behind becomes ours, and is reaped.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  plan_ = mapPlan(path("plan"));
  plain_ = mapPlan(path("plain"));
  // Times of the command line are local ones.
  setenv("TZ", "UTC0", 1);
}

Rig::~Rig() { endGroup(group_); }

std::string Rig::path(const std::string& name) const { return work_ + "/" + name; }

Launch Rig::with(const std::vector<std::string>& arguments, bool faulty) const {
  Launch how;
  how.arguments = arguments;
  how.promises = path("promises");
  how.output = path(faulty ? "output" : "other-output");
  how.errors = path(faulty ? "errors" : "other-errors");
  how.log = path(faulty ? "log" : "other-log");
  how.plan = path(faulty ? "plan" : "plain");
  return how;
}

std::string Rig::must(const std::vector<std::string>& arguments) {
  const Ending ending = await(launch(with(arguments, false), group_), kLimitMs);
  if (!ending.hung && !ending.signalled && ending.code == 0) return "";
  return arguments[0] + " " + arguments[1] +
         " fails without a fault: " + readFile(path("other-errors")) + readFile(path("other-log"));
}

void Rig::order(const Case& fault, uint32_t speed) {
  memset(static_cast<void*>(plan_), 0, sizeof *plan_);
  memset(static_cast<void*>(plain_), 0, sizeof *plain_);
  plan_->op = fault.op;
  plan_->mode = fault.mode;
  plan_->number = fault.number;
  plan_->speed = plain_->speed = speed;
}

// Starts from an empty card: an old and an interrupted session, a whole life, a clean stop.
std::string Rig::makeScenes() {
  const std::string recorder = bin_ + "/faults_recorder";
  const std::string tarn = bin_ + "/faults_tarn";
  order({}, kSpeed);
  loseMemory();
  writeFile(path("promises"), "");
  writeFile(kCard, std::string(kCardBytes, '\0'));
  scenes_["blank"].take("");
  std::string failure = must(formatArguments(bin_));
  if (failure.empty()) failure = must({tarn, "recover"});
  bool ready = false;
  pid_t server = startServer(false, &ready);
  if (failure.empty()) failure = must({recorder, "life", "1", "180"});
  if (failure.empty()) failure = must({recorder, "life", "2", "40", "stop-before-close"});
  kill(server, SIGKILL);
  await(server, kLimitMs);
  loseMemory();
  scenes_["crashed"].take(readFile(path("promises")));
  if (failure.empty()) failure = must({tarn, "recover"});
  scenes_["started"].take(readFile(path("promises")));
  if (std::any_of(programs_.begin(), programs_.end(),
                  [](const Program& each) { return each.scene == "clipped"; })) {
    server = startServer(false, &ready);
    if (failure.empty()) failure = must(recordArguments(bin_));
    kill(server, SIGTERM);
    await(server, kLimitMs);
    scenes_["clipped"].take(scenes_["started"].promises());
    scenes_["started"].restore();
  }
  server = startServer(false, &ready);
  if (failure.empty())
    failure = must({recorder, "life", "3", std::to_string(kLifePictures), "edit"});
  kill(server, SIGTERM);
  await(server, kLimitMs);
  scenes_["stopped"].take(readFile(path("promises")));
  if (failure.empty()) failure = must({tarn, "save"});
  loseMemory();
  scenes_["saved"].take(readFile(path("promises")));
  return failure;
}

// A few seconds of real video, for the programs that record and export it.
std::string Rig::makeClip() { return must(clipArguments()); }

std::string Rig::prepare(const std::string& onlyProgram) {
  const bool media = access((bin_ + "/tarn").c_str(), X_OK) == 0 && makeClip().empty();
  if (!media) printf("record and export are left out: no clip can be made here\n");
  programs_ = programsOf(bin_, media);
  std::string failure = makeScenes();
  if (!failure.empty()) return failure;
  mayLose_ = {kSpareRows + 1000, kSpareRows + 1000};
  std::array<uint32_t, 2> most = {};
  for (const Program& program : programs_) {
    if (!onlyProgram.empty() && program.name != onlyProgram) continue;
    bool reached = false;
    failure = run({program.name, kAny, 0, kNone}, kSpeed, &reached);
    if (!failure.empty()) return program.name + " without a fault: " + failure;
    for (uint32_t op = 0; op < kOps; ++op) counts_[program.name][op] = plan_->counts[op];
    outputs_[program.name] = readFile(path("output")) + readFile(path(kExported));
    for (const char* name : {"log", "other-log"})
      usualLines_.merge(kindsOfLines(readFile(path(name))));
    for (size_t i = 0; i < 2; ++i) most[i] = std::max(most[i], lost_[i]);
  }
  for (size_t i = 0; i < 2; ++i) mayLose_[i] = most[i] + kSpareRows;
  return "";
}

pid_t Rig::startServer(bool faulty, bool* ready) {
  int ends[2];
  *ready = false;
  if (pipe(ends) != 0) return -1;
  fcntl(ends[0], F_SETFD, FD_CLOEXEC);
  Launch how = with({bin_ + "/tarn-server", "--ready-fd", std::to_string(ends[1])}, faulty);
  how.promises = "";
  if (ends[1] == 3) how.readyFd = 3;
  const pid_t server = launch(how, group_);
  close(ends[1]);
  pollfd entry = {ends[0], POLLIN, 0};
  char mark = 0;
  *ready = poll(&entry, 1, kLimitMs) > 0 && ::read(ends[0], &mark, 1) == 1;
  close(ends[0]);
  return server;
}

// What was complained of, beyond the lines that every run logs.
std::string Rig::complaints() const {
  // What a check finds it says on its standard output.
  std::string text = readFile(path("errors")) + readFile(path("findings"));
  for (const std::string& line :
       kindsOfLines(readFile(path("log")) + readFile(path("other-log")))) {
    if (usualLines_.count(line) == 0) text += line + "\n";
  }
  return text;
}

void Rig::show(const char* what) const {
  if (!verbose_) return;
  printf("== %s\n", what);
  for (const char* name : {"output", "errors", "log", "other-errors", "other-log", "verdict"})
    printf("-- %s\n%s", name, readFile(path(name)).c_str());
  fflush(stdout);
}

// What is wrong with how a program ended, by itself.
std::string Rig::explain(const std::string& who, const Ending& ending, const Case& fault) const {
  if (ending.hung) return who + " hangs";
  if (ending.signalled) {
    if (fault.mode == kKill && ending.code == SIGKILL && plan_->hits > 0) return "";
    return who + " ends by signal " + std::to_string(ending.code) + " (" +
           firstLine(readFile(path("errors"))) + ")";
  }
  // What runs inside another one ends for it as a shell has it.
  if (fault.mode == kKill && ending.code == 128 + SIGKILL && plan_->hits > 0) return "";
  if (ending.code != goodCode_ && complaints().find_first_not_of(" \n") == std::string::npos)
    return who + " ends with " + std::to_string(ending.code) + " without a word";
  return "";
}

void Rig::begin(const Program& program, const Case& fault, uint32_t speed) {
  scenes_.at(program.scene).restore();
  for (const char* name :
       {"output", "errors", "findings", "log", "other-output", "other-errors", "other-log"})
    writeFile(path(name), "");
  unlink(path(kExported).c_str());
  writeFile(path("promises"), scenes_.at(program.scene).promises());
  writeFile(path("input"), program.input);
  goodCode_ = program.goodCode;
  order(fault, speed);
}

std::string Rig::stopServer(pid_t server, bool faulty, const Case& fault) {
  kill(server, SIGTERM);
  const Ending ending = await(server, kLimitMs);
  if (faulty) return explain("the server", ending, fault);
  if (ending.hung) return "the server beside it hangs";
  return ending.signalled || ending.code != 0
             ? "the server beside it fails: " + readFile(path("other-log"))
             : "";
}

std::string Rig::runProgram(const Program& program, const Case& fault, Ending* ending) {
  bool ready = true;
  const pid_t server = program.beside ? startServer(false, &ready) : 0;
  if (!ready) return "the server beside it does not start: " + readFile(path("other-log"));
  Launch how = with(program.arguments, true);
  how.input = program.input.empty() ? "" : path("input");
  *ending = await(launch(how, group_), limitMs_);
  if (program.findsByCode != 0 && ending->code == program.findsByCode)
    writeFile(path("findings"), readFile(path("output")));
  std::string failure = explain(program.name, *ending, fault);
  const std::string stopped = program.beside ? stopServer(server, false, fault) : "";
  return failure.empty() ? stopped : failure;
}

// The recorder beside it has no fault of its own, but must notice a server that is in trouble.
std::string Rig::runServer(const Program&, const Case& fault, Ending* ending) {
  bool ready = false;
  const pid_t server = startServer(true, &ready);
  std::string failure;
  if (ready) {
    const Launch life = with(
        {bin_ + "/faults_recorder", "life", "3", std::to_string(kLifePictures), "edit"}, false);
    *ending = await(launch(life, group_), kLimitMs);
    if (ending->hung) {
      failure = "the recorder beside it hangs";
    } else if (ending->signalled) {
      failure = "the recorder beside it ends by signal " + std::to_string(ending->code);
    } else if (ending->code != 0 && readFile(path("other-errors")).empty()) {
      failure = "the recorder beside it fails without a word";
    }
  }
  kill(server, SIGTERM);
  const Ending served = await(server, limitMs_);
  const std::string serverFailure = explain("the server", served, fault);
  const bool good = !served.hung && !served.signalled && served.code == 0;
  if (!good && ending->code == 0) *ending = served;
  if (!ready && good) return "the server ends with 0 and was never ready";
  return serverFailure.empty() ? failure : serverFailure;
}

// Readers: the card is as it was, and what they print is the whole truth or an error.
std::string Rig::judgeOutput(const Program& program, const Ending& ending) {
  const std::string where = scenes_.at(program.scene).cardDiffers();
  if (!where.empty() && !program.beside) return "the card was changed at " + where;
  if (ending.signalled || ending.code != 0) return "";
  const auto wanted = outputs_.find(program.name);
  if (wanted == outputs_.end() ||
      readFile(path("output")) + readFile(path(kExported)) == wanted->second)
    return "";
  return "it ends with 0 and prints something else";
}

// `present`: it ended well, so that all must be there without a start.
std::string Rig::judge(const Case& fault, bool present) {
  // A program that was killed is started again with or without a start of the machine.
  const bool stay = present || (fault.mode == kKill && fault.number % 2 == 0);
  if (stay) {
    unlink("/tmp/sd_err_mem_write");
  } else {
    loseMemory();
  }
  writeFile(path("verdict"), "");
  Launch how =
      with({bin_ + "/faults_recorder", "judge", path("promises"), std::to_string(mayLose_[0]),
            std::to_string(mayLose_[1]), strict_ ? "1" : "0", stay ? "1" : "0"},
           false);
  how.output = path("verdict");
  how.errors = path("other-errors");
  const Ending ending = await(launch(how, group_), kLimitMs);
  const std::string verdict = readFile(path("verdict"));
  std::istringstream lines(verdict);
  for (std::string line; std::getline(lines, line);) {
    sscanf(line.c_str(), "lost %u %u", &lost_[0], &lost_[1]);
    if (line.rfind("FAIL ", 0) == 0) return line.substr(5);
  }
  if (ending.hung) return "what comes after it hangs";
  if (ending.signalled) return "what comes after it ends by signal " + std::to_string(ending.code);
  return ending.code == 0 ? ""
                          : "what comes after it ends with " + std::to_string(ending.code) + ": " +
                                readFile(path("other-errors"));
}

// What a program told on its standard output counts, however it ended.
void Rig::promiseWhatWasSaid() {
  std::istringstream lines(readFile(path("output")));
  unsigned written = 0, safe = 0;
  for (std::string line; std::getline(lines, line);)
    sscanf(line.c_str(), "%u pictures written, %u safe", &written, &safe);
  writeFile(path("promises"), readFile(path("promises")) + "clip " + std::to_string(safe) + "\n");
}

std::string Rig::run(const Case& fault, uint32_t speed, bool* reached) {
  const auto program = std::find_if(programs_.begin(), programs_.end(), [&](const Program& each) {
    return each.name == fault.program;
  });
  if (program == programs_.end()) return "there is no such program";
  begin(*program, fault, speed);
  group_ = newGroup();
  Ending ending;
  std::string failure = program->kind == Program::Kind::kServes
                            ? runServer(*program, fault, &ending)
                            : runProgram(*program, fault, &ending);
  *reached = plan_->hits > 0;
  const bool good = !ending.hung && !ending.signalled && ending.code == goodCode_;
  if (program->tellsSafe) promiseWhatWasSaid();
  if (good) {
    std::string promises = readFile(path("promises"));
    for (const std::string& line : program->promisesAtEnd) promises += line + "\n";
    writeFile(path("promises"), promises);
    if (failure.empty() && promises.find(program->wholeLife) == std::string::npos)
      failure = "it ends with 0 before its work is done";
  }
  show("program");
  // What a menu changes has no result of its own: the log tells.
  strict_ = complaints().empty();
  // A card whose format failed is formatted once more.
  if (failure.empty() && program->kind == Program::Kind::kFormats && !good) {
    order({}, kSpeed);
    failure = must(program->arguments);
  }
  if (failure.empty()) {
    failure =
        program->kind == Program::Kind::kReads ? judgeOutput(*program, ending) : judge(fault, good);
  }
  show("judge");
  endGroup(group_);
  group_ = 0;
  return failure;
}

// An oracle that is fed with something wrong must say so.
bool Rig::seesBrokenPromise(const std::string& promise, bool loseOldest) {
  scenes_.at("stopped").restore();
  writeFile(path("promises"), scenes_.at("stopped").promises() + promise + "\n");
  strict_ = true;
  const std::array<uint32_t, 2> mayLose = mayLose_;
  if (loseOldest) mayLose_ = {};
  const bool seen = !judge({}, false).empty();
  mayLose_ = mayLose;
  return seen;
}

// One bit of a picture that was safe.
bool Rig::seesOtherByte() {
  Scene scene = scenes_.at("stopped");
  scene.restore();
  const std::vector<uint8_t> picture = pictureBytes({2, 1, 7});
  std::string card = readFile(kCard);
  const size_t place = card.find(std::string(picture.begin(), picture.end()));
  if (place == std::string::npos) return false;
  card[place + picture.size() - 1] ^= 1;
  writeFile(kCard, card);
  writeFile(path("promises"), scene.promises());
  return !judge({}, false).empty();
}

std::vector<std::string> Rig::prove() {
  std::vector<std::string> unseen;
  const auto expect = [&](bool seen, const std::string& what) {
    if (!seen) unseen.push_back(what);
    printf("%s %s\n", seen ? "seen" : "NOT SEEN", what.c_str());
  };
  expect(!seesBrokenPromise("", false), "that nothing is wrong where nothing is");
  for (const char* promise : {"safe 2 0 41", "safe 3 1 46", "event 5 5 21", "updated 9 12",
                              "deleted 9", "event-deleted 5", "line 999", "clip 1"})
    expect(seesBrokenPromise(promise, false),
           std::string("a promise that is not kept: ") + promise);
  expect(seesBrokenPromise("begun 999 3 0 5", false), "an event that is lost");
  expect(seesBrokenPromise("", true), "more of the oldest that is lost than room was needed");
  expect(seesOtherByte(), "a picture with another byte");
  using Kind = Program::Kind;
  const std::string recorder = bin_ + "/faults_recorder";
  for (const char* bad : {"silent", "crash", "hang", "spin", "early", "scribble", "differ"}) {
    const bool reads = strcmp(bad, "scribble") == 0 || strcmp(bad, "differ") == 0;
    programs_.push_back({bad,
                         "stopped",
                         reads ? Kind::kReads : Kind::kChanges,
                         false,
                         {recorder, "bad", bad},
                         "",
                         "done well",
                         {}});
    outputs_[bad] = "what it should print";
    bool reached = false;
    limitMs_ = 1000;
    expect(!run({bad, kAny, 0, kNone}, kSpeed, &reached).empty(),
           std::string("a program that is bad: ") + bad);
    limitMs_ = kLimitMs;
  }
  return unseen;
}

}  // namespace faults
