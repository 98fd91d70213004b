#include "foundation/FileTree.h"

#include <algorithm>
#include <climits>
#include <cstdio>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "foundation/Cancellation.h"
#include "platform/FileDescriptor.h"
#include "support/Syscall.h"

namespace kestrin {

namespace {

using platform::FileDescriptor;

// The user's extended attributes of one file: a Finder label or comment is a few dozen bytes,
// and the largest value ext4 keeps is under 4 KiB.
constexpr std::size_t kAttributeListLimit = 64 << 10;
constexpr std::size_t kAttributeValueLimit = 64 << 10;

Failure failed(const std::string& path, int error = errno) {
  return Failure{errnoMessage(path, error)};
}

FileTree::Type typeOf(mode_t mode) {
  return S_ISREG(mode)   ? FileTree::Type::File
         : S_ISDIR(mode) ? FileTree::Type::Folder
         : S_ISLNK(mode) ? FileTree::Type::Link
                         : FileTree::Type::Other;
}

// The entries of an open folder; the descriptor stays open and unread.
std::optional<std::vector<FileTree::Entry>> readEntries(int folder) {
  int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) {
    return std::nullopt;
  }
  DIR* dir = ::fdopendir(copy);
  if (dir == nullptr) {
    ::close(copy);
    return std::nullopt;
  }
  std::vector<FileTree::Entry> entries;
  errno = 0;
  while (dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    FileTree::Type type = FileTree::Type::Other;
    switch (entry->d_type) {
    case DT_REG:
      type = FileTree::Type::File;
      break;
    case DT_DIR:
      type = FileTree::Type::Folder;
      break;
    case DT_LNK:
      type = FileTree::Type::Link;
      break;
    case DT_UNKNOWN: {
      struct stat status {};
      if (::fstatat(folder, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        continue; // gone meanwhile
      }
      type = typeOf(status.st_mode);
      break;
    }
    default:
      break;
    }
    entries.push_back({std::string(name), type});
  }
  bool complete = errno == 0;
  ::closedir(dir);
  if (!complete) {
    return std::nullopt;
  }
  std::sort(entries.begin(), entries.end(),
            [](const FileTree::Entry& a, const FileTree::Entry& b) { return a.name < b.name; });
  return entries;
}

FileDescriptor openFolderAt(int parent, const std::string& name) {
  return FileDescriptor(retryOnEintr([&] {
    return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
}

bool isItemName(const std::string& name) {
  return !name.empty() && name != "." && name != "..";
}

Expected<void> removeAt(int parent, const std::string& name, const std::string& path, int depth) {
  struct stat status {};
  if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return failed(path);
  }
  if (!S_ISDIR(status.st_mode)) {
    if (::unlinkat(parent, name.c_str(), 0) != 0) {
      return failed(path);
    }
    return {};
  }
  if (depth >= FileTree::kDepthLimit) {
    return Failure{path + ": folders nested too deeply"};
  }
  {
    FileDescriptor folder = openFolderAt(parent, name);
    auto entries = folder ? readEntries(folder.get()) : std::nullopt;
    if (!entries) {
      return failed(path);
    }
    for (const auto& entry : *entries) {
      auto removed =
          removeAt(folder.get(), entry.name, FileTree::join(path, entry.name), depth + 1);
      if (!removed) {
        return removed;
      }
    }
  }
  if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) {
    return failed(path);
  }
  return {};
}

bool copyData(int in, int out) {
  bool kernelCopy = true;
  for (;;) {
    ssize_t n = kernelCopy ? ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0) : -1;
    if (n < 0 && kernelCopy && errno != EINTR) {
      // Across file systems, or on one that cannot: copy through a buffer from where it stopped.
      kernelCopy = false;
      continue;
    }
    if (!kernelCopy) {
      char buffer[1 << 16];
      n = retryOnEintr([&] { return ::read(in, buffer, sizeof buffer); });
      for (ssize_t done = 0; n > 0 && done < n;) {
        ssize_t written = retryOnEintr([&] { return ::write(out, buffer + done, n - done); });
        if (written <= 0) {
          return false;
        }
        done += written;
      }
    }
    if (n == 0) {
      return true;
    }
    if (n < 0 && errno != EINTR) {
      return false;
    }
  }
}

// Best effort: a destination that keeps no extended attributes still gets the file.
void copyUserAttributes(int in, int out) {
  ssize_t size = ::flistxattr(in, nullptr, 0);
  if (size <= 0 || static_cast<std::size_t>(size) > kAttributeListLimit) {
    return;
  }
  std::string names(static_cast<std::size_t>(size), '\0');
  size = ::flistxattr(in, names.data(), names.size());
  if (size <= 0) {
    return;
  }
  names.resize(static_cast<std::size_t>(size));
  std::string value;
  for (std::size_t at = 0; at < names.size();) {
    std::string name = names.c_str() + at;
    at += name.size() + 1;
    if (name.rfind("user.", 0) != 0) {
      continue;
    }
    ssize_t length = ::fgetxattr(in, name.c_str(), nullptr, 0);
    if (length < 0 || static_cast<std::size_t>(length) > kAttributeValueLimit) {
      continue;
    }
    value.resize(static_cast<std::size_t>(length));
    length = ::fgetxattr(in, name.c_str(), value.data(), value.size());
    if (length >= 0) {
      ::fsetxattr(out, name.c_str(), value.data(), static_cast<std::size_t>(length), 0);
    }
  }
}

// Whether the folder open at `folder` is the item (device, inode) or lies somewhere inside it:
// climbs ".." up to the root.
bool isWithin(int folder, dev_t device, ino_t inode) {
  FileDescriptor current(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  struct stat status {};
  while (current && ::fstat(current.get(), &status) == 0) {
    if (status.st_dev == device && status.st_ino == inode) {
      return true;
    }
    FileDescriptor parent = openFolderAt(current.get(), "..");
    struct stat above {};
    if (!parent || ::fstat(parent.get(), &above) != 0 ||
        (above.st_dev == status.st_dev && above.st_ino == status.st_ino)) {
      return false; // the root is its own parent
    }
    current = std::move(parent);
  }
  return false;
}

// One copy: remembers whether it created the top item, so that a failed copy removes what it
// made and nothing that was there before.
struct Copier {
  bool createdTop = false;

  Expected<void> copyAt(int fromParent, const std::string& fromName, const std::string& fromPath,
                        int toParent, const std::string& toName, const std::string& toPath,
                        int depth) {
    struct stat status {};
    if (::fstatat(fromParent, fromName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      return failed(fromPath);
    }
    const mode_t mode = status.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO | S_ISVTX);
    const struct timespec times[2] = {status.st_atim, status.st_mtim};
    if (S_ISREG(status.st_mode)) {
      FileDescriptor in(retryOnEintr([&] {
        return ::openat(fromParent, fromName.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
      }));
      if (!in) {
        return failed(fromPath);
      }
      FileDescriptor out(retryOnEintr([&] {
        return ::openat(toParent, toName.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
      }));
      if (!out) {
        return failed(toPath);
      }
      createdTop = createdTop || depth == 0;
      if (!copyData(in.get(), out.get())) {
        return failed(toPath);
      }
      copyUserAttributes(in.get(), out.get());
      ::fchmod(out.get(), mode);
      ::futimens(out.get(), times);
      return {};
    }
    if (S_ISDIR(status.st_mode)) {
      if (depth >= FileTree::kDepthLimit) {
        return Failure{fromPath + ": folders nested too deeply"};
      }
      FileDescriptor from = openFolderAt(fromParent, fromName);
      auto entries = from ? readEntries(from.get()) : std::nullopt;
      if (!entries) {
        return failed(fromPath);
      }
      if (::mkdirat(toParent, toName.c_str(), S_IRWXU) != 0) {
        return failed(toPath);
      }
      createdTop = createdTop || depth == 0;
      FileDescriptor to = openFolderAt(toParent, toName);
      if (!to) {
        return failed(toPath);
      }
      for (const auto& entry : *entries) {
        auto copied = copyAt(from.get(), entry.name, FileTree::join(fromPath, entry.name), to.get(),
                             entry.name, FileTree::join(toPath, entry.name), depth + 1);
        if (!copied) {
          return copied;
        }
      }
      copyUserAttributes(from.get(), to.get());
      ::fchmod(to.get(), mode);
      ::futimens(to.get(), times);
      return {};
    }
    if (S_ISLNK(status.st_mode)) {
      std::string target(PATH_MAX, '\0');
      ssize_t length = ::readlinkat(fromParent, fromName.c_str(), target.data(), target.size());
      if (length < 0 || static_cast<std::size_t>(length) >= target.size()) {
        return failed(fromPath, length < 0 ? errno : ENAMETOOLONG);
      }
      target.resize(static_cast<std::size_t>(length));
      if (::symlinkat(target.c_str(), toParent, toName.c_str()) != 0) {
        return failed(toPath);
      }
      createdTop = createdTop || depth == 0;
      ::utimensat(toParent, toName.c_str(), times, AT_SYMLINK_NOFOLLOW);
      return {};
    }
    if (S_ISFIFO(status.st_mode)) {
      if (::mkfifoat(toParent, toName.c_str(), mode) != 0) {
        return failed(toPath);
      }
      createdTop = createdTop || depth == 0;
      return {};
    }
    // Device files and sockets are not copied: a copy of a device is a second door to it.
    return Failure{fromPath + ": neither a file, a folder nor a link"};
  }
};

} // namespace

std::optional<FileTree::Listing> FileTree::list(const std::string& folder, bool followLink) {
  FileDescriptor fd(retryOnEintr([&] {
    return ::open(folder.c_str(),
                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW));
  }));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) {
    return std::nullopt;
  }
  auto entries = readEntries(fd.get());
  if (!entries) {
    return std::nullopt;
  }
  return Listing{status.st_dev, status.st_ino, std::move(*entries)};
}

std::optional<FileTree::Listing> FileTree::Walk::enter(const std::string& folder, int depth) {
  if (cancelled_ || Cancellation::requested()) {
    cancelled_ = true;
    return std::nullopt;
  }
  if (depth > kDepthLimit) {
    stopped_ = true;
    return std::nullopt;
  }
  auto listing = list(folder, depth == 0);
  if (!listing) {
    return std::nullopt;
  }
  if (!visited_.insert({listing->device, listing->inode}).second) {
    stopped_ = true;
    return std::nullopt;
  }
  return listing;
}

Expected<void> FileTree::removeItem(const std::string& path) {
  auto [parent, name] = split(path);
  if (!isItemName(name)) {
    return Failure{path + ": not an item that can be removed"};
  }
  const char* folderPath = parent.c_str(); // clang 14 cannot capture a structured binding
  FileDescriptor folder(
      retryOnEintr([&] { return ::open(folderPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!folder) {
    return failed(path);
  }
  return removeAt(folder.get(), name, path, 0);
}

Expected<void> FileTree::copyItem(const std::string& from, const std::string& to) {
  auto [fromParent, fromName] = split(from);
  auto [toParent, toName] = split(to);
  if (!isItemName(fromName) || !isItemName(toName)) {
    return Failure{from + ": cannot be copied to " + to};
  }
  auto openFolder = [](const std::string& folder) {
    return FileDescriptor(
        retryOnEintr([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  };
  FileDescriptor source = openFolder(fromParent);
  if (!source) {
    return failed(from);
  }
  FileDescriptor destination = openFolder(toParent);
  if (!destination) {
    return failed(to);
  }
  // A folder copied into itself would copy its own copy again at every level.
  struct stat status {};
  if (::fstatat(source.get(), fromName.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(status.st_mode) && isWithin(destination.get(), status.st_dev, status.st_ino)) {
    return Failure{to + ": inside the folder being copied"};
  }
  Copier copier;
  auto copied = copier.copyAt(source.get(), fromName, from, destination.get(), toName, to, 0);
  if (!copied && copier.createdTop) {
    (void)removeAt(destination.get(), toName, to, 0);
  }
  return copied;
}

Expected<void> FileTree::moveItem(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return {};
  }
  int error = errno;
  if (error == EINVAL || error == ENOSYS) {
    // A file system that cannot refuse to replace: look first (a race can still replace).
    struct stat status {};
    if (::lstat(to.c_str(), &status) == 0) {
      return failed(to, EEXIST);
    }
    if (::rename(from.c_str(), to.c_str()) == 0) {
      return {};
    }
    error = errno;
  }
  if (error != EXDEV) {
    return failed(error == EEXIST || error == ENOTEMPTY ? to : from, error);
  }
  auto copied = copyItem(from, to);
  if (!copied) {
    return copied;
  }
  // A source that cannot be removed stays beside its copy: nothing is lost, and the caller
  // hears of the failure.
  return removeItem(from);
}

std::string FileTree::join(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.empty() && path.back() != '/') {
    path += '/';
  }
  path += name;
  return path;
}

std::pair<std::string, std::string> FileTree::split(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return {".", std::string(path)};
  }
  if (path == "/") {
    return {"/", ""};
  }
  std::string_view parent = path.substr(0, slash);
  return {parent.empty() ? "/" : std::string(parent), std::string(path.substr(slash + 1))};
}

} // namespace kestrin
