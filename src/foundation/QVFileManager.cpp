// QVFileManager's tests, names and paths, formatting, digests and disk facts. The changes, walks,
// attributes and tool runs are in the QVFileManager+*.cpp files beside this one.

#include "foundation/QVFileManager.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>

#include <sys/stat.h>
#include <unistd.h>

#include "foundation/FileTree.h"
#include "foundation/FinderInfo.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/WildcardMatcher.h"
#include "platform/Clock.h"
#include "platform/MountTable.h"
#include "platform/ToolTable.h"

namespace kestrin {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The components as the platform's path functions give them: "/" first for an absolute path,
// then every non-empty name.
std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (startsWith(path, "/")) {
    components.emplace_back("/");
  }
  std::size_t at = 0;
  while (at < path.size()) {
    std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) {
      components.emplace_back(path.substr(at, end - at));
    }
    at = end + 1;
  }
  return components;
}

// The mount point that a volume path names: the first three components.
std::optional<std::string> volumeOf(std::string_view path, std::string_view prefix) {
  if (!startsWith(path, prefix)) {
    return std::nullopt;
  }
  auto components = pathComponents(path);
  if (components.size() < 3) {
    return std::nullopt;
  }
  return "/" + components[1] + "/" + components[2];
}

bool isDsStoreOrIcon(std::string_view name) {
  return name == ".DS_Store" || name == "Icon\r";
}

bool folderIsEmpty(const std::string& path, FileTree::Walk& walk, int depth) {
  auto listing = walk.enter(path, depth);
  if (!listing) {
    return !walk.stopped(); // unreadable lists nothing; too deep or a loop is not empty
  }
  const auto& entries = listing->entries;
  if (entries.size() == 1 && isDsStoreOrIcon(entries.front().name)) {
    return true;
  }
  for (const auto& entry : entries) {
    if (isDsStoreOrIcon(entry.name)) {
      continue;
    }
    if (entry.type != FileTree::Type::Folder ||
        !folderIsEmpty(FileTree::join(path, entry.name), walk, depth + 1)) {
      return false;
    }
  }
  return true;
}

std::uint64_t sizeOf(const std::string& path, FileTree::Walk& walk, int depth) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return 0;
  }
  if (!S_ISDIR(status.st_mode)) {
    return static_cast<std::uint64_t>(status.st_size);
  }
  auto listing = walk.enter(path, depth);
  std::uint64_t total = 0;
  for (const auto& entry : listing ? listing->entries : std::vector<FileTree::Entry>{}) {
    total += sizeOf(FileTree::join(path, entry.name), walk, depth + 1);
  }
  return total;
}

std::string lowercase(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return out;
}

// The extension as the platform's path functions see it: after the last dot of the last
// component, unless that dot starts the name.
std::string_view extensionOf(std::string_view path) {
  std::string_view name = path.substr(path.rfind('/') + 1);
  std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

std::string_view withoutExtension(std::string_view path) {
  std::string_view extension = extensionOf(path);
  return extension.empty() ? path : path.substr(0, path.size() - extension.size() - 1);
}

std::string hex(const plist::Data& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t byte : bytes) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 0xF];
  }
  return out;
}

// A path the wildcard search has reached, and whether a link there may be followed: only
// along the names the caller wrote, never below a "*".
struct Candidate {
  std::string path;
  bool followable = false;
};

} // namespace

const QVFileManager::Environment& QVFileManager::Environment::shared() {
  static const Environment environment{QVLocalPaths::shared(), platform::ToolTable::shared(),
                                       platform::Clock::system()};
  return environment;
}

// ---- Tests

bool QVFileManager::fileExistsAtPath(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

bool QVFileManager::isDirectoryAtPath(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool QVFileManager::isPackageAtPath(const std::string& path) {
  static constexpr std::array<std::string_view, 17> kPackageExtensions = {
      "app",        "bundle", "component", "fcpbundle", "framework", "kext",
      "mdimporter", "mpkg",   "pkg",       "plugin",    "prefpane",  "qlgenerator",
      "rtfd",       "saver",  "wdgt",      "xpc",       "fxplug"};
  if (!isDirectoryAtPath(path)) {
    return false;
  }
  std::string extension = lowercase(extensionOf(path));
  if (std::find(kPackageExtensions.begin(), kPackageExtensions.end(), extension) !=
      kPackageExtensions.end()) {
    return true;
  }
  auto info = FinderInfo::read(path);
  return info && (info->flags() & FinderInfo::kHasBundle) != 0;
}

bool QVFileManager::isSymbolicLinkAtPath(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool QVFileManager::isVolumeMountedForPath(const std::string& path) {
  auto volume = volumeOf(path, "/Volumes");
  return !volume || fileExistsAtPath(*volume);
}

bool QVFileManager::isDriveMountedForPath(const std::string& path) {
  auto volume = volumeOf(path, "/Volumes/");
  if (!volume) {
    return true;
  }
  QVLog::console("mountpoint: {}", printable(*volume));
  return fileExistsAtPath(*volume);
}

std::optional<std::string> QVFileManager::volumeMountPointForPath(const std::string& path) {
  std::vector<std::string> volumes;
  for (const auto& mount : platform::MountTable::current()) {
    if (mount.isLocalVolume()) {
      volumes.push_back(mount.mountPoint);
    }
  }
  return volumeMountPointForPath(path, volumes);
}

std::optional<std::string>
QVFileManager::volumeMountPointForPath(const std::string& path,
                                       const std::vector<std::string>& volumes) {
  const std::string* deepest = nullptr;
  for (const auto& volume : volumes) {
    if (volume == "/") {
      continue;
    }
    bool holds = path == volume || (startsWith(path, volume) && path[volume.size()] == '/');
    if (holds && (deepest == nullptr || volume.size() > deepest->size())) {
      deepest = &volume;
    }
  }
  if (deepest != nullptr) {
    return *deepest;
  }
  if (startsWith(path, "/Volumes")) {
    return std::nullopt;
  }
  return "/";
}

bool QVFileManager::isFolderEmpty(const std::string& path) {
  if (!isDirectoryAtPath(path)) {
    return false; // a file is no empty folder, whatever its listing says
  }
  FileTree::Walk walk;
  return folderIsEmpty(path, walk, 0);
}

std::uint64_t QVFileManager::fileSize(const std::string& path) {
  FileTree::Walk walk;
  return sizeOf(path, walk, 0);
}

std::optional<plist::Dictionary>
QVFileManager::infoForDiskAtMountpoint(const std::string& mountPoint) {
  std::string wanted = mountPoint;
  while (wanted.size() > 1 && wanted.back() == '/') {
    wanted.pop_back();
  }
  // The last mount at a point is the one in sight there.
  std::optional<platform::Mount> found;
  for (auto& mount : platform::MountTable::current()) {
    if (mount.mountPoint == wanted) {
      found = std::move(mount);
    }
  }
  if (!found) {
    return std::nullopt;
  }
  auto space = platform::MountTable::space(wanted);
  bool onDevice = startsWith(found->source, "/dev/");
  std::optional<std::string> label;
  if (onDevice) {
    label = platform::MountTable::volumeLabel(found->source);
  }
  if (!label) {
    label = wanted == "/" ? "/" : FileTree::split(wanted).second;
  }
  bool writable = space ? !space->readOnly : found->options.rfind("ro", 0) != 0;

  plist::Dictionary info;
  info.set("MountPoint", wanted);
  info.set("VolumeName", *label);
  info.set("FilesystemType", found->fileSystemType);
  if (space) {
    info.set("TotalSize", space->totalBytes);
    info.set("VolumeSize", space->totalBytes);
    info.set("FreeSpace", space->availableBytes);
    info.set("VolumeAllocationBlockSize", space->blockSize);
  }
  info.set("WritableVolume", writable);
  info.set("Writable", writable);
  if (onDevice) {
    info.set("DeviceNode", found->source);
    info.set("DeviceIdentifier", FileTree::split(found->source).second);
    if (auto uuid = platform::MountTable::volumeUUID(found->source)) {
      info.set("VolumeUUID", *uuid);
    }
  }
  return info;
}

// ---- Names and paths

std::string QVFileManager::validateFilename(std::string_view name) {
  if (name == ".") {
    return "";
  }
  if (startsWith(name, ".")) {
    name.remove_prefix(1);
  }
  // White space and line breaks, Unicode's among them where they are one byte wide.
  auto isSpace = [](char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
  };
  while (!name.empty() && isSpace(name.front())) {
    name.remove_prefix(1);
  }
  while (!name.empty() && isSpace(name.back())) {
    name.remove_suffix(1);
  }
  std::string out;
  for (char c : name) {
    if (c != '/' && c != ':') {
      out += c;
    }
  }
  return out;
}

std::string QVFileManager::uniqueFilename(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return path;
  }
  std::string_view extension = extensionOf(path);
  std::string stem(withoutExtension(path));
  for (long n = 2;; ++n) {
    std::string candidate = stem + " " + std::to_string(n);
    if (!extension.empty()) {
      candidate += ".";
      candidate += extension;
    }
    if (::lstat(candidate.c_str(), &status) != 0) {
      return candidate;
    }
  }
}

std::string QVFileManager::decodeWildcardPath(const std::string& pattern,
                                              const std::optional<std::string>& base) {
  auto matches = filesMatchingWildcardPath(pattern, base);
  if (!matches.empty()) {
    return matches.front();
  }
  return base ? FileTree::join(*base, pattern) : pattern;
}

std::vector<std::string>
QVFileManager::filesMatchingWildcardPath(const std::string& pattern,
                                         const std::optional<std::string>& base,
                                         bool /*searchSubdirs: kept for its callers*/) {
  if (pattern.find('*') == std::string::npos) {
    return {base ? FileTree::join(*base, pattern) : pattern};
  }
  const std::string start = base.value_or("/");
  std::vector<Candidate> candidates = {{start, true}};
  const auto components = pathComponents(pattern);
  for (std::size_t index = 0; index < components.size() && !candidates.empty(); ++index) {
    const std::string& component = components[index];
    const bool last = index + 1 == components.size();
    std::vector<Candidate> next;
    // Below a "*", a link ends the search: it may be a match, never a way further down.
    auto add = [&](std::string path, bool followable, bool isLink) {
      if (isLink && !followable && (!last || !fileExistsAtPath(path))) {
        return true;
      }
      if (next.size() == kWildcardMatchLimit) {
        QVLog::appendLog("Wildcard path {} matches more than {} files. Ignoring it.",
                         printable(pattern), kWildcardMatchLimit);
        return false;
      }
      next.push_back({std::move(path), followable});
      return true;
    };
    if (component == "/") {
      next.push_back({start, true});
    } else if (component.find('*') != std::string::npos) {
      // Each folder is listed once per component, however many spellings of it ("a/..",
      // "b/..") the candidates hold: repeated "*/.." cannot multiply the work.
      WildcardMatcher matcher(component);
      std::set<std::pair<dev_t, ino_t>> listed;
      for (const auto& candidate : candidates) {
        auto listing = FileTree::list(candidate.path, candidate.followable);
        if (!listing || !listed.insert({listing->device, listing->inode}).second) {
          continue;
        }
        for (const auto& entry : listing->entries) {
          if (matcher.matches(entry.name) && !add(FileTree::join(candidate.path, entry.name), false,
                                                  entry.type == FileTree::Type::Link)) {
            return {};
          }
        }
      }
    } else {
      for (const auto& candidate : candidates) {
        std::string path = FileTree::join(candidate.path, component);
        struct stat status {};
        if (candidate.followable ? ::stat(path.c_str(), &status) != 0
                                 : ::lstat(path.c_str(), &status) != 0) {
          continue;
        }
        if (!add(std::move(path), candidate.followable, S_ISLNK(status.st_mode))) {
          return {};
        }
      }
    }
    candidates = std::move(next);
  }
  std::vector<std::string> paths;
  paths.reserve(candidates.size());
  for (auto& candidate : candidates) {
    paths.push_back(std::move(candidate.path));
  }
  return paths;
}

// ---- Formatting and hashing

std::string QVFileManager::formatFileSize(double bytes) {
  constexpr double kUnit = 1.0 / 1024;
  if (bytes < 1024) {
    return fmt::format("{:0.0f} B", bytes);
  }
  if (bytes < 1048576) {
    return fmt::format("{:0.2f} KB", bytes * kUnit);
  }
  if (bytes < 1073741824) {
    return fmt::format("{:0.2f} MB", bytes * kUnit * kUnit);
  }
  return fmt::format("{:0.2f} GB", bytes * kUnit * kUnit * kUnit);
}

std::string QVFileManager::md5HashWithContext(Md5Context context) {
  return hex(context.digest());
}

std::string QVFileManager::sha1HashWithContext(Sha1Context context) {
  return hex(context.digest());
}

std::string QVFileManager::printable(std::string_view path) {
  std::string out;
  for (std::size_t i = 0; i < path.size();) {
    auto c = static_cast<unsigned char>(path[i]);
    if (c < 0x20 || c == 0x7F) {
      out += c == '\n'   ? "\\n"
             : c == '\r' ? "\\r"
             : c == '\t' ? "\\t"
                         : fmt::format("\\x{:02x}", c);
      ++i;
      continue;
    }
    std::size_t length = c < 0x80           ? 1
                         : (c >> 5) == 0x6  ? 2
                         : (c >> 4) == 0xE  ? 3
                         : (c >> 3) == 0x1E ? 4
                                            : 0;
    bool valid = length != 0 && i + length <= path.size() && (length != 2 || c >= 0xC2);
    for (std::size_t k = 1; valid && k < length; ++k) {
      valid = (static_cast<unsigned char>(path[i + k]) & 0xC0) == 0x80;
    }
    if (!valid) {
      out += fmt::format("\\x{:02x}", c);
      ++i;
      continue;
    }
    out.append(path.substr(i, length));
    i += length;
  }
  return out;
}

} // namespace kestrin
