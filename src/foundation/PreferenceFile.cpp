#include "foundation/PreferenceFile.h"

#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "plist/PropertyList.h"
#include "support/Syscall.h"

namespace kestrin {

namespace {

// flock() on a sidecar file: the settings file itself is replaced by rename on every write, so
// a lock on it would guard an inode that the next writer no longer uses.
class FileLock {
public:
  explicit FileLock(const std::string& path)
      : fd_(retryOnEintr(
            [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644); })) {
    if (fd_ >= 0) {
      retryOnEintr([&] { return ::flock(fd_, LOCK_EX); });
    }
  }
  ~FileLock() {
    if (fd_ >= 0) {
      ::close(fd_); // releases the lock
    }
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

private:
  int fd_;
};

} // namespace

PreferenceFile::PreferenceFile(std::string path) : path_(std::move(path)) {}

plist::Dictionary PreferenceFile::dictionary() const {
  auto value = plist::readFile(path_);
  if (!value) {
    return {};
  }
  if (const plist::Dictionary* dict = value->asDictionary()) {
    return *dict;
  }
  return {};
}

plist::Value PreferenceFile::object(std::string_view key) const {
  plist::Dictionary dict = dictionary();
  const plist::Value* value = dict.find(key);
  return value ? *value : plist::Value();
}

template <typename Change> Expected<void> PreferenceFile::modify(Change&& change) {
  std::lock_guard guard(writeMutex_);
  // A fresh home has no preferences folder yet; the first write creates it.
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ignored);
  FileLock lock(path_ + ".lock");
  plist::Dictionary dict = dictionary();
  if (!change(dict)) {
    return {};
  }
  return plist::writeFile(path_, dict);
}

Expected<void> PreferenceFile::setObject(const plist::Value& value, const std::string& key) {
  if (value.isNull() || key.empty()) {
    return {};
  }
  return modify([&](plist::Dictionary& dict) {
    dict.set(key, value);
    return true;
  });
}

Expected<void> PreferenceFile::removeObject(const std::string& key) {
  return modify([&](plist::Dictionary& dict) { return dict.erase(key); });
}

} // namespace kestrin
