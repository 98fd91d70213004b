#include "operations/CrashLogFolders.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/FileDescriptor.h"
#include "support/Syscall.h"
#include "support/Utf8.h"

namespace kestrin::operations {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 14> kVideoApplicationPrefixes = {"Final Cut Pro_",
                                                                        "Final Cut Pro Trial_",
                                                                        "Final Cut Express_",
                                                                        "Motion_",
                                                                        "Color_",
                                                                        "Compressor_",
                                                                        "Soundtrack Pro_",
                                                                        "DVD Studio Pro_",
                                                                        "Cinema Tools_",
                                                                        "LiveType_",
                                                                        "AvidMediaComposer_",
                                                                        "AvidSymphony_",
                                                                        "Adobe Premiere Pro",
                                                                        "CodecFamily32Tool_"};

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
           return std::tolower(x) == std::tolower(y);
         });
}

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && equalIgnoringCase(text.substr(0, prefix.size()), prefix);
}

bool endsWithIgnoringCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         equalIgnoringCase(text.substr(text.size() - suffix.size()), suffix);
}

// The real path of the folder that holds `path`, when `path` names an entry of a folder.
std::optional<fs::path> realParent(const std::string& path) {
  // A NUL would end the path early for the system while the checks below saw all of it.
  if (path.find('\0') != std::string::npos) {
    return std::nullopt;
  }
  fs::path given(path);
  std::string name = given.filename().string();
  if (!given.is_absolute() || name.empty() || name == "." || name == "..") {
    return std::nullopt;
  }
  std::error_code error;
  fs::path parent = fs::canonical(given.parent_path(), error);
  if (error) {
    return std::nullopt;
  }
  return parent;
}

bool isFolderOf(const fs::path& realFolder, const std::string& folder) {
  std::error_code error;
  fs::path real = fs::canonical(folder, error);
  return !error && real == realFolder;
}

} // namespace

std::vector<std::string> CrashLogFolders::crashReportFolders() const {
  std::string user = paths_.libraryDirectory(true).value_or("");
  std::string local = paths_.libraryDirectory(false).value_or("");
  return {user + "/Logs/CrashReporter/Tovell Saved Logs", user + "/Logs/CrashReporter",
          local + "/Logs/CrashReporter", user + "/Logs/DiagnosticReports",
          local + "/Logs/DiagnosticReports"};
}

std::string CrashLogFolders::userCrashReportFolder() const {
  return paths_.logDirectory(true).value_or("") + "/CrashReporter";
}

std::vector<CrashLogFolders::LogFolder> CrashLogFolders::agentLogFolders() const {
  std::vector<LogFolder> folders;
  for (bool user : {true, false}) {
    std::string logs = paths_.logDirectory(user).value_or("");
    folders.push_back({logs + "/Quorvane", isAgentLogName});
    folders.push_back({logs + "/CrashReporter", isAgentCrashReportName});
  }
  return folders;
}

bool CrashLogFolders::inCrashReportFolder(const std::string& path) const {
  auto parent = realParent(path);
  if (!parent) {
    return false;
  }
  auto folders = crashReportFolders();
  return std::any_of(folders.begin(), folders.end(),
                     [&](const std::string& folder) { return isFolderOf(*parent, folder); });
}

bool CrashLogFolders::isAgentLog(const std::string& path) const {
  auto parent = realParent(path);
  if (!parent) {
    return false;
  }
  std::string name = fs::path(path).filename().string();
  for (const LogFolder& folder : agentLogFolders()) {
    if (folder.keeps(name) && isFolderOf(*parent, folder.path)) {
      return true;
    }
  }
  return false;
}

bool isVideoApplicationCrashReport(std::string_view name) {
  return endsWithIgnoringCase(name, ".crash") &&
         std::any_of(kVideoApplicationPrefixes.begin(), kVideoApplicationPrefixes.end(),
                     [&](std::string_view prefix) { return startsWithIgnoringCase(name, prefix); });
}

bool isAgentLogName(std::string_view name) {
  return name.ends_with(".log");
}

bool isAgentCrashReportName(std::string_view name) {
  return name.starts_with("Kestrin_") && name.ends_with(".crash");
}

std::string appNameFromCrashLogFilename(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  std::size_t slash = path.rfind('/');
  std::string_view name =
      slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1);
  std::size_t underscore = name.find('_');
  if (underscore == std::string_view::npos || underscore == 0) {
    return std::string(name);
  }
  return std::string(name.substr(0, underscore));
}

Expected<std::vector<std::string>> listRegularFiles(const std::string& folder) {
  std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(folder.c_str()), ::closedir);
  if (!directory) {
    return Failure{std::strerror(errno)};
  }
  std::vector<std::string> names;
  std::size_t examined = 0;
  while (dirent* entry = ::readdir(directory.get())) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    if (++examined > kListingLimit) {
      QVLog::appendLog("Listed only the first {} entries of {}", kListingLimit,
                       printablePath(folder));
      break;
    }
    unsigned char type = entry->d_type;
    if (type == DT_UNKNOWN) {
      struct stat status {};
      if (::fstatat(::dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        continue;
      }
      type = S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
    }
    if (type != DT_REG) {
      continue;
    }
    if (!isUtf8(name)) {
      QVLog::appendLog("Skipping {}: its name is not UTF-8",
                       printablePath(folder + "/" + std::string(name)));
      continue;
    }
    names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool entryExists(const std::string& path) {
  struct stat status {};
  return path.find('\0') == std::string::npos && ::lstat(path.c_str(), &status) == 0;
}

Expected<plist::Data> readRegularFile(const std::string& path, std::size_t limit) {
  if (path.find('\0') != std::string::npos) {
    return Failure{"the path holds a NUL character"};
  }
  platform::FileDescriptor fd(retryOnEintr(
      [&] { return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  if (!fd) {
    return Failure{errno == ELOOP ? "it is a link" : std::strerror(errno)};
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) {
    return Failure{std::strerror(errno)};
  }
  if (!S_ISREG(status.st_mode)) {
    return Failure{S_ISDIR(status.st_mode) ? "it is a folder" : "it is not a regular file"};
  }
  if (static_cast<std::uint64_t>(status.st_size) > limit) {
    return Failure{fmt::format("it is larger than {} bytes", limit)};
  }
  // Room for one byte more than fstat saw: a file that grew meanwhile shows as a full buffer.
  plist::Data bytes(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t filled = 0;
  for (;;) {
    if (filled == bytes.size()) {
      if (bytes.size() > limit) {
        return Failure{fmt::format("it is larger than {} bytes", limit)};
      }
      bytes.resize(limit + 1);
    }
    ssize_t n = retryOnEintr(
        [&] { return ::read(fd.get(), bytes.data() + filled, bytes.size() - filled); });
    if (n < 0) {
      return Failure{std::strerror(errno)};
    }
    if (n == 0) {
      break;
    }
    filled += static_cast<std::size_t>(n);
  }
  bytes.resize(filled);
  return bytes;
}

std::string printablePath(std::string_view path) {
  std::string out;
  while (!path.empty()) {
    std::size_t length = utf8SequenceLength(path);
    unsigned char c = static_cast<unsigned char>(path[0]);
    if (length == 0 || c < 0x20 || c == 0x7f) {
      out += fmt::format("\\x{:02x}", c);
      path.remove_prefix(1);
      continue;
    }
    out += path.substr(0, length);
    path.remove_prefix(length);
  }
  return out;
}

} // namespace kestrin::operations
