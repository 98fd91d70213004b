// Locking, permissions, dates, extended-attribute metadata, Finder labels and references.

#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include "foundation/FinderInfo.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "platform/FileFlags.h"
#include "platform/Workspace.h"

namespace kestrin {

namespace {

// Names of the platform's own attributes carry no namespace; here an attribute without one
// is the user's.
std::string attributeName(const std::string& key) {
  for (const char* space : {"user.", "trusted.", "security.", "system."}) {
    if (key.rfind(space, 0) == 0) {
      return key;
    }
  }
  return "user." + key;
}

} // namespace

bool QVFileManager::isFileLocked(const std::string& path) {
  return platform::FileFlags::isImmutable(path).valueOr(false);
}

bool QVFileManager::lockFile(const std::string& path) {
  auto set = platform::FileFlags::setImmutable(path, true);
  if (!set) {
    // The words of unlocking, for locking too: the log has always had them so.
    QVLog::fastAppendLog("Unable to unlock file {}: {}", printable(path), set.message());
  }
  return set.ok();
}

bool QVFileManager::unlockFile(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
    return false; // nothing there to unlock: not worth a line in the log
  }
  auto set = platform::FileFlags::setImmutable(path, false);
  if (!set) {
    QVLog::fastAppendLog("Unable to unlock file {}: {}", printable(path), set.message());
  }
  return set.ok();
}

bool QVFileManager::setPosixPermissions(unsigned long mode, const std::string& path) {
  if (::chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) != 0) {
    QVLog::appendLog("Error setting permissions for file {}: {}", printable(path),
                     std::strerror(errno));
    return false;
  }
  return true;
}

bool QVFileManager::setModificationDate(const plist::Date& date, const std::string& path) {
  double unix = date.toUnix();
  if (!std::isfinite(unix)) {
    return false;
  }
  double whole = std::floor(unix);
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(whole);
  times[1].tv_nsec = static_cast<long>((unix - whole) * 1e9);
  return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0;
}

std::optional<plist::Date> QVFileManager::creationDateForFile(const std::string& path) {
  return platform::FileFlags::creationDate(path);
}

std::optional<std::string> QVFileManager::metadataValueForKey(const std::string& key,
                                                              const std::string& path) {
  const std::string name = attributeName(key);
  ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
  int error = errno;
  QVLog::console("buffer val: {}", size);
  if (size < 0) {
    QVLog::console("Error retrieving file attribute: {}", error);
    return std::nullopt;
  }
  if (size == 0) {
    return std::nullopt;
  }
  // The value is read with room for 255 bytes whatever its size, as it always has been; a
  // longer one does not fit and answers nothing.
  constexpr std::size_t kReadLength = 255;
  plist::Data buffer(std::max(static_cast<std::size_t>(size), kReadLength));
  ssize_t got = ::getxattr(path.c_str(), name.c_str(), buffer.data(), kReadLength);
  if (got < 0) {
    return std::nullopt;
  }
  buffer.resize(std::min(static_cast<std::size_t>(size), static_cast<std::size_t>(got)));
  return QVTaskEx::decode(buffer, StringEncoding::UTF8);
}

bool QVFileManager::setMetadataValue(std::string_view value, const std::string& key,
                                     const std::string& path) {
  return ::setxattr(path.c_str(), attributeName(key).c_str(), value.data(), value.size(), 0) == 0;
}

std::uint16_t QVFileManager::finderColorIndexForPath(const std::string& path) {
  if (!stringToFSRef(path)) {
    return 0;
  }
  auto info = FinderInfo::read(path);
  return info ? info->flags() : 0;
}

bool QVFileManager::setFinderColorIndex(std::uint16_t index,
                                        const std::optional<std::string>& path) {
  if (!path) {
    return false;
  }
  auto info = FinderInfo::read(*path);
  if (!info) {
    return false;
  }
  info->setFlags(static_cast<std::uint16_t>((info->flags() & ~FinderInfo::kColorMask) |
                                            (index & FinderInfo::kColorMask)));
  return info->write(*path).ok();
}

std::optional<QVFileManager::FinderColor>
QVFileManager::finderColorForColorIndex(std::uint16_t index) {
  // Indexed by label / 2 - 1: grey, green, purple, blue, yellow, red, orange.
  static constexpr std::array<FinderColor, 7> kColors = {{
      {0.0, 0.0, 0.72},
      {0.2056, 0.5, 0.85},
      {0.7917, 0.26, 0.86},
      {0.5789, 0.56, 0.98},
      {0.1388, 0.54, 0.95},
      {0.0083, 0.54, 1.0},
      {0.0888, 0.52, 0.98},
  }};
  // The range is tested before bit 0 is cleared: 3 is the colour of 2, but 15 has none.
  if (index < 2 || index > 14) {
    return std::nullopt;
  }
  return kColors[(index & ~1u) / 2 - 1];
}

std::optional<QVFileManager::FinderColor>
QVFileManager::finderColorForPath(const std::string& path) {
  return finderColorForColorIndex(finderColorIndexForPath(path));
}

void QVFileManager::disableFileSystemCachingForFile(const std::string& /*path*/) {}

bool QVFileManager::registerApplicationWithLaunchServices(const std::string& path) {
  return platform::Workspace::readBundle(path).has_value();
}

int QVFileManager::notifyFileSystemChanged(const std::optional<std::string>& path) {
  constexpr int kNoError = 0, kFileNotFound = -43, kParameterError = -50;
  if (!path) {
    return kParameterError;
  }
  return stringToFSRef(*path) ? kNoError : kFileNotFound;
}

std::optional<QVFileManager::FileReference> QVFileManager::stringToFSRef(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return std::nullopt;
  }
  return FileReference{path, status.st_dev, status.st_ino};
}

std::optional<std::string> QVFileManager::stringWithFSRef(const FileReference& reference) {
  struct stat status {};
  if (::stat(reference.path.c_str(), &status) != 0 || status.st_dev != reference.device ||
      status.st_ino != reference.inode) {
    return std::nullopt;
  }
  return reference.path;
}

} // namespace kestrin
