#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace tarn {

// Where something of that name in the folder lies.
inline std::string inFolder(std::string folder, const std::string& name) {
  folder += '/';
  return folder += name;
}

// The names in a folder into *names, without "." and "..", in no order: 0, or errno. Throws
// std::bad_alloc; the C++ library's own iterator ends the process then.
inline int folderNames(const char* folder, std::vector<std::string>* names) {
  names->clear();
  const std::unique_ptr<DIR, int (*)(DIR*)> open(opendir(folder), closedir);
  if (open == nullptr) return errno;
  const dirent* entry = nullptr;
  while ((errno = 0, entry = readdir(open.get())) != nullptr) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
      names->emplace_back(entry->d_name);
  }
  return errno;
}

// All that is in a folder and in the folders below it, each behind the one that holds it, into
// *paths, counted from the folder: 0, or errno of the first that cannot be read. Links are not
// followed, and what somebody takes away meanwhile is not there. Throws std::bad_alloc.
inline int pathsBelow(const std::string& folder, std::vector<std::string>* paths) {
  std::vector<std::string> names;
  int result = folderNames(folder.c_str(), &names);
  paths->swap(names);
  for (size_t i = 0; result == 0 && i < paths->size(); ++i) {
    const std::string path = inFolder(folder, (*paths)[i]);
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
      result = errno;
    } else if (S_ISDIR(status.st_mode)) {
      result = folderNames(path.c_str(), &names);
      for (const std::string& name : names) paths->push_back(inFolder((*paths)[i], name));
    }
    if (result == ENOENT) result = 0;
  }
  return result;
}

}  // namespace tarn
