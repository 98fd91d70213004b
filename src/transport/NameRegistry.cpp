#include "transport/NameRegistry.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "plist/PropertyList.h"
#include "support/Syscall.h"

namespace kestrin::transport {

namespace {

constexpr std::size_t kMaxFileName = 200;

// Letters, digits, '.', '-' and '_' stay; every other byte becomes %XX, so any name maps to one
// file name and back. Very long names keep a readable head and a hash of the whole.
std::string fileNameFor(const std::string& name) {
  std::string encoded;
  for (unsigned char c : name) {
    if (std::isalnum(c) || c == '.' || c == '-' || c == '_') {
      encoded += static_cast<char>(c);
    } else {
      encoded += fmt::format("%{:02X}", c);
    }
  }
  if (encoded.size() > kMaxFileName) {
    std::uint64_t hash = 1469598103934665603ull; // FNV-1a
    for (unsigned char c : name) {
      hash = (hash ^ c) * 1099511628211ull;
    }
    encoded = fmt::format("{}~{:016x}", encoded.substr(0, kMaxFileName - 17), hash);
  }
  return encoded + ".name";
}

// The folder of the names, made with mode 0700 when it is missing. Whoever else could write in
// it could take the agent's names or plant a record that sends callers elsewhere, so a folder
// that is a link, that another user owns or that anyone but its owner may write in is refused
// (in the shared temporary folder, another user can make it first).
Expected<void> checkFolder(const std::string& directory) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(directory).parent_path(), ignored);
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    return Failure{errnoMessage("cannot create " + directory)};
  }
  platform::FileDescriptor folder(retryOnEintr(
      [&] { return ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!folder) {
    return Failure{errnoMessage("cannot open " + directory)};
  }
  struct stat status {};
  if (::fstat(folder.get(), &status) != 0) {
    return Failure{errnoMessage("cannot examine " + directory)};
  }
  if (status.st_uid != ::geteuid()) {
    return Failure{fmt::format("refusing {}: it belongs to user {}", directory, status.st_uid)};
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return Failure{fmt::format("refusing {}: other users may write in it", directory)};
  }
  return {};
}

bool sameFile(int fd, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

NameRegistry::Registration::~Registration() {
  // Unlink while still holding the lock, so nobody can take over the file we are leaving.
  ::unlink(path_.c_str());
}

std::string NameRegistry::defaultDirectory() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && *runtime != '\0') {
    return std::string(runtime) + "/kestrin-names";
  }
  return (std::filesystem::temp_directory_path() / fmt::format("kestrin-names-{}", ::getuid()))
      .string();
}

std::string NameRegistry::pathForName(const std::string& name) const {
  return directory_ + "/" + fileNameFor(name);
}

Expected<std::unique_ptr<NameRegistry::Registration>>
NameRegistry::registerName(const std::string& name, const plist::Dictionary& contact) const {
  if (auto folder = checkFolder(directory_); !folder) {
    return folder.failure();
  }
  std::string path = pathForName(name);
  for (int attempt = 0; attempt < 8; ++attempt) {
    platform::FileDescriptor fd(retryOnEintr(
        [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600); }));
    if (!fd) {
      return Failure{errnoMessage("cannot open " + path)};
    }
    if (retryOnEintr([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) != 0) {
      if (errno == EWOULDBLOCK) {
        return Failure{fmt::format("the name \"{}\" is held by another process", name)};
      }
      return Failure{errnoMessage("cannot lock " + path)};
    }
    if (!sameFile(fd.get(), path)) {
      continue; // the previous holder unlinked it as we opened it: try the new file
    }
    plist::Dictionary record = contact;
    record.set("pid", static_cast<std::int64_t>(::getpid()));
    record.set("name", name);
    auto bytes = plist::toBinary(plist::Value(record));
    if (!bytes) {
      return bytes.failure();
    }
    if (::ftruncate(fd.get(), 0) != 0 || ::pwrite(fd.get(), bytes->data(), bytes->size(), 0) !=
                                             static_cast<ssize_t>(bytes->size())) {
      return Failure{errnoMessage("cannot write " + path)};
    }
    return std::make_unique<Registration>(path, std::move(fd));
  }
  return Failure{fmt::format("the name \"{}\" keeps changing hands", name)};
}

std::optional<plist::Dictionary> NameRegistry::lookup(const std::string& name) const {
  if (!checkFolder(directory_)) {
    return std::nullopt; // a record there could have been written by anyone
  }
  std::string path = pathForName(name);
  platform::FileDescriptor fd(
      retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!fd) {
    return std::nullopt;
  }
  if (retryOnEintr([&] { return ::flock(fd.get(), LOCK_SH | LOCK_NB); }) == 0) {
    return std::nullopt; // nobody holds it: a leftover of a process that died
  }
  auto contents = plist::readFile(path);
  if (!contents || !contents->asDictionary()) {
    return plist::Dictionary{}; // held, but the holder has not written its record yet
  }
  return *contents->asDictionary();
}

std::string NameRegistry::describeHolder(const plist::Dictionary& contact) {
  std::string text = "pid ";
  const plist::Value* pid = contact.find("pid");
  text += pid && pid->asInteger() ? std::to_string(*pid->asInteger()) : "unknown";
  const plist::Value* address = contact.find("address");
  const plist::Value* port = contact.find("port");
  const plist::Value* socket = contact.find("path");
  if (address && address->asString() && port && port->asInteger()) {
    text += fmt::format(" at {}:{}", *address->asString(), *port->asInteger());
  } else if (socket && socket->asString()) {
    text += " at " + *socket->asString();
  }
  return text;
}

} // namespace kestrin::transport
