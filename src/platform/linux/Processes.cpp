#include "platform/Processes.h"

#include <cctype>
#include <filesystem>

#include <dirent.h>
#include <unistd.h>

namespace kestrin::platform {

std::vector<RunningProcess> runningProcesses() {
  std::vector<RunningProcess> found;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) {
    return found;
  }
  while (dirent* entry = ::readdir(proc)) {
    if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
      continue;
    }
    std::string link = std::string("/proc/") + entry->d_name + "/exe";
    char target[4096];
    ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
    if (length <= 0) {
      continue; // another user's, a kernel thread's, or gone
    }
    std::string executable(target, static_cast<std::size_t>(length));
    // A program replaced on disk while it runs is still the one running.
    constexpr std::string_view kDeleted = " (deleted)";
    if (executable.ends_with(kDeleted)) {
      executable.erase(executable.size() - kDeleted.size());
    }
    found.push_back({static_cast<pid_t>(std::stol(entry->d_name)), std::move(executable)});
  }
  ::closedir(proc);
  return found;
}

std::vector<RunningProcess> processesInside(const std::string& folder) {
  std::string prefix = folder;
  if (prefix.empty() || prefix.back() != '/') {
    prefix += '/';
  }
  std::vector<RunningProcess> inside;
  for (RunningProcess& process : runningProcesses()) {
    if (process.executable.compare(0, prefix.size(), prefix) == 0) {
      inside.push_back(std::move(process));
    }
  }
  return inside;
}

} // namespace kestrin::platform
