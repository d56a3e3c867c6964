#include "Scene.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>

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

// The card's bytes as they are: it stays one file, so that it is mapped once. Only what it has
// pages of may be looked at.
const char* mapped(int fd, size_t size) {
  static void* memory = MAP_FAILED;
  static size_t length = 0;
  if (length >= size) return static_cast<const char*>(memory);
  memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (memory == MAP_FAILED) abort();
  length = size;
  return static_cast<const char*>(memory);
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
  Sum sum;
  for (size_t at = 0; at < card.size(); at += kPage) {
    std::string page = card.substr(at, kPage);
    if (page == zeros) continue;
    sum.add(at).add(page);
    pages_.emplace_back(at, std::move(page));
  }
  sum_ = sum.add(size_).value();
  files_.clear();
  for (const std::string& name : filesOfRamDisk()) {
    if (std::filesystem::is_regular_file(name)) files_[name] = readFile(name);
  }
}

// What the system keeps no page of is zeros, in the card as in the scene.
void Scene::eachDifference(int fd, const std::function<void(off_t, std::string_view)>& tell) const {
  static const std::string zeros(kPage, '\0');
  const char* card = mapped(fd, size_);
  auto page = pages_.begin();
  const auto compare = [&](off_t at, std::string_view bytes) {
    while (page != pages_.end() && static_cast<off_t>(page->first) < at)
      tell(static_cast<off_t>((page++)->first), zeros);
    const bool known = page != pages_.end() && static_cast<off_t>(page->first) == at;
    const std::string& wanted = known ? (page++)->second : zeros;
    if (bytes != std::string_view(wanted).substr(0, bytes.size())) tell(at, bytes);
  };
  const auto size = static_cast<off_t>(size_);
  for (off_t at = 0; (at = lseek(fd, at, SEEK_DATA)) >= 0 && at < size;) {
    const off_t end = std::min(lseek(fd, at, SEEK_HOLE), size);
    for (; at < end; at += static_cast<off_t>(kPage))
      compare(at, {card + at, std::min(kPage, static_cast<size_t>(end - at))});
    at = end;
  }
  compare(size, {});
}

void Scene::restore() const {
  loseMemory();
  const int fd = open(kCard, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) abort();
  if (lseek(fd, 0, SEEK_END) != static_cast<off_t>(size_) &&
      (ftruncate(fd, 0) != 0 || ftruncate(fd, static_cast<off_t>(size_)) != 0))
    abort();
  std::set<off_t> changed;
  eachDifference(fd, [&](off_t at, std::string_view) { changed.insert(at); });
  const std::string zeros(kPage, '\0');
  for (const off_t at : changed) {
    const auto known = std::lower_bound(
        pages_.begin(), pages_.end(), at,
        [](const auto& page, off_t place) { return static_cast<off_t>(page.first) < place; });
    const bool ours = known != pages_.end() && static_cast<off_t>(known->first) == at;
    const std::string& page = ours ? known->second : zeros;
    if (pwrite(fd, page.data(), page.size(), at) < 0) abort();
  }
  close(fd);
  for (const auto& [name, bytes] : files_) writeFile(name, bytes);
}

std::string Scene::cardDiffers() const {
  const int fd = open(kCard, O_RDONLY | O_CLOEXEC);
  std::string failure;
  if (lseek(fd, 0, SEEK_END) != static_cast<off_t>(size_)) failure = "its size";
  if (failure.empty()) {
    eachDifference(fd, [&](off_t at, std::string_view) {
      if (failure.empty()) failure = std::to_string(at);
    });
  }
  close(fd);
  return failure;
}

uint64_t Scene::cardSum() const {
  const int fd = open(kCard, O_RDONLY | O_CLOEXEC);
  Sum sum;
  sum.add(sum_);
  if (lseek(fd, 0, SEEK_END) != static_cast<off_t>(size_)) sum.add(readFile(kCard));
  eachDifference(
      fd, [&](off_t at, std::string_view bytes) { sum.add(static_cast<uint64_t>(at)).add(bytes); });
  close(fd);
  return sum.value();
}

}  // namespace faults
