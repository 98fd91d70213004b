#include "admin/SavedLogs.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "platform/AtomicFile.h"
#include "platform/FileDescriptor.h"
#include "support/Syscall.h"
#include "support/Utf8.h"

namespace kestrin::admin {

std::string savedLogName(std::string_view path) {
  std::string name;
  while (!path.empty() && path.front() == '/') {
    path.remove_prefix(1);
  }
  while (!path.empty()) {
    std::size_t length = utf8SequenceLength(path);
    unsigned char c = static_cast<unsigned char>(path[0]);
    if (length == 0 || c < 0x20 || c == 0x7f || c == '/') {
      name += '_';
      path.remove_prefix(1);
      continue;
    }
    name += path.substr(0, length);
    path.remove_prefix(length);
  }
  if (name.size() > kMaxNameLength) {
    // The end names the file; cut at a character's start.
    std::size_t cut = name.size() - kMaxNameLength;
    while (cut < name.size() && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) {
      ++cut;
    }
    name.erase(0, cut);
  }
  if (name.empty()) {
    return "_";
  }
  if (name.front() == '.') {
    name.front() = '_'; // no hidden files, and never "." or ".."
  }
  return name;
}

Expected<SaveReport>
saveLogs(const std::string& folder, const plist::Dictionary& logs,
         const std::function<void(const std::string&, const std::string&, std::size_t)>& saved,
         const std::function<void(const std::string&, const std::string&)>& skipped) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  platform::FileDescriptor directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    return Failure{errnoMessage(folder)};
  }
  SaveReport report;
  std::set<std::string> used;
  for (const auto& [path, value] : logs) {
    const plist::Data* bytes = value.asData();
    if (bytes == nullptr) {
      ++report.skipped;
      skipped(path, fmt::format("the agent sent {}, not data", plist::kindName(value.kind())));
      continue;
    }
    std::string base = savedLogName(path);
    std::string name = base;
    for (int n = 2; !used.insert(name).second; ++n) {
      name = fmt::format("{} {}", base, n);
    }
    platform::FileDescriptor file(retryOnEintr([&] {
      return ::openat(directory.get(), name.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!file) {
      ++report.skipped;
      skipped(path, errnoMessage(name));
      continue;
    }
    if (auto written = platform::writeAll(file.get(), *bytes, name); !written) {
      ++report.skipped;
      skipped(path, written.message());
      continue;
    }
    ++report.saved;
    saved(path, (std::filesystem::path(folder) / name).string(), bytes->size());
  }
  return report;
}

} // namespace kestrin::admin
