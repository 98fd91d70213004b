#include "foundation/FileAttributes.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace kestrin {

namespace {

// A Finder label or comment is a few dozen bytes, and the largest value ext4 keeps is under
// 4 KiB: anything far beyond that is not copied.
constexpr std::size_t kAttributeListLimit = 64 << 10;
constexpr std::size_t kAttributeValueLimit = 64 << 10;

} // namespace

std::optional<FileAttributes> FileAttributes::read(const std::string& path) {
  FileAttributes attributes;
  if (::stat(path.c_str(), &attributes.status_) != 0) {
    return std::nullopt;
  }
  ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
  if (size <= 0 || static_cast<std::size_t>(size) > kAttributeListLimit) {
    return attributes;
  }
  std::string names(static_cast<std::size_t>(size), '\0');
  size = ::listxattr(path.c_str(), names.data(), names.size());
  names.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  for (std::size_t at = 0; at < names.size();) {
    std::string name = names.c_str() + at;
    at += name.size() + 1;
    if (name.rfind("user.", 0) != 0) {
      continue;
    }
    ssize_t length = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
    if (length < 0 || static_cast<std::size_t>(length) > kAttributeValueLimit) {
      continue;
    }
    std::string value(static_cast<std::size_t>(length), '\0');
    length = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (length >= 0) {
      value.resize(static_cast<std::size_t>(length));
      attributes.userAttributes_.emplace_back(std::move(name), std::move(value));
    }
  }
  return attributes;
}

bool FileAttributes::applyTo(const std::string& path) const {
  bool ok = true;
  if (::geteuid() == 0) {
    ok = ::chown(path.c_str(), status_.st_uid, status_.st_gid) == 0;
  }
  // After the owner: changing the owner clears the set-id bits, and these carry none anyway.
  ok = ::chmod(path.c_str(), status_.st_mode & (S_IRWXU | S_IRWXG | S_IRWXO | S_ISVTX)) == 0 && ok;
  for (const auto& [name, value] : userAttributes_) {
    ::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0);
  }
  const struct timespec times[2] = {status_.st_atim, status_.st_mtim};
  ok = ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 && ok;
  return ok;
}

} // namespace kestrin
