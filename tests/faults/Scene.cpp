#include "Scene.h"

#include <fcntl.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "Process.h"
#include "Programs.h"
#include "Sum.h"

namespace faults {
namespace {

constexpr size_t kPage = 4096;

// Files and sockets; folders are trees that the view leaves in sight.
std::vector<std::string> filesOfRamDisk() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    if (!entry.is_directory()) names.push_back(entry.path());
  }
  return names;
}

// All sets: the namespace is the view's own.
std::vector<int> semaphores() {
  std::vector<int> sets;
  seminfo info = {};
  const int last = semctl(0, 0, SEM_INFO, &info);
  for (int i = 0; i <= last; ++i) {
    semid_ds set = {};
    const int id = semctl(i, 0, SEM_STAT, &set);
    if (id >= 0) sets.push_back(id);
  }
  return sets;
}

}  // namespace

void loseMemory() {
  for (const std::string& name : filesOfRamDisk()) unlink(name.c_str());
  for (const int set : semaphores()) semctl(set, 0, IPC_RMID);
}

// Holes and pages of zeros are the same.
uint64_t cardSum() {
  const int fd = open(kCard, O_RDONLY | O_CLOEXEC);
  Sum sum;
  sum.add(static_cast<uint64_t>(lseek(fd, 0, SEEK_END)));
  std::string page(kPage, '\0');
  const std::string zeros = page;
  for (off_t at = 0; (at = lseek(fd, at, SEEK_DATA)) >= 0; at += static_cast<off_t>(kPage)) {
    const ssize_t got = pread(fd, page.data(), kPage, at);
    if (got <= 0) break;
    const std::string_view bytes(page.data(), static_cast<size_t>(got));
    if (zeros.compare(0, bytes.size(), bytes) != 0) sum.add(static_cast<uint64_t>(at)).add(bytes);
  }
  close(fd);
  return sum.value();
}

uint64_t memorySum() {
  Sum sum;
  std::vector<std::string> names = filesOfRamDisk();
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    sum.add(name);
    if (std::filesystem::is_regular_file(name)) sum.add(readFile(name));
  }
  // Whoever held or waited for one is gone.
  for (const int set : semaphores()) sum.add(static_cast<uint64_t>(semctl(set, 0, GETVAL)));
  return sum.value();
}

void Scene::take(const std::string& promises) {
  promises_ = promises;
  const std::string card = readFile(kCard);
  const std::string zeros(kPage, '\0');
  size_ = card.size();
  pages_.clear();
  for (size_t at = 0; at < card.size(); at += kPage) {
    std::string page = card.substr(at, kPage);
    if (page != zeros) pages_.emplace_back(at, std::move(page));
  }
  files_.clear();
  for (const std::string& name : filesOfRamDisk()) {
    if (std::filesystem::is_regular_file(name)) files_[name] = readFile(name);
  }
}

void Scene::restore() const {
  loseMemory();
  const int fd = open(kCard, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(size_)) != 0) abort();
  for (const auto& [at, page] : pages_) {
    if (pwrite(fd, page.data(), page.size(), static_cast<off_t>(at)) < 0) abort();
  }
  close(fd);
  for (const auto& [name, bytes] : files_) writeFile(name, bytes);
}

// What the system keeps no page of is zeros, in the card as in the scene.
std::string Scene::cardDiffers() const {
  const int fd = open(kCard, O_RDONLY | O_CLOEXEC);
  std::string failure;
  if (lseek(fd, 0, SEEK_END) != static_cast<off_t>(size_)) failure = "its size";
  std::string card(kPage, '\0');
  const std::string zeros(kPage, '\0');
  auto page = pages_.begin();
  for (off_t at = 0; failure.empty() && at < static_cast<off_t>(size_);) {
    const off_t data = std::min(lseek(fd, at, SEEK_DATA), static_cast<off_t>(size_));
    const off_t known =
        page != pages_.end() ? static_cast<off_t>(page->first) : static_cast<off_t>(size_);
    at = data < 0 ? known : std::min(data, known);
    if (at >= static_cast<off_t>(size_)) break;
    const std::string& wanted = at == known ? (page++)->second : zeros;
    const ssize_t got = pread(fd, card.data(), kPage, at);
    if (got < 0 || card.compare(0, static_cast<size_t>(got), wanted) != 0)
      failure = std::to_string(at);
    at += static_cast<off_t>(kPage);
  }
  close(fd);
  return failure;
}

}  // namespace faults
