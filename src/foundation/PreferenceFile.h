#pragma once

#include <mutex>
#include <string>

#include "plist/Value.h"
#include "support/Expected.h"

namespace kestrin {

// A settings dictionary stored as one property-list file. Nothing is cached: every read goes
// to disk, so another program's write (the preference pane's) takes effect at the next read.
// Every write is a whole-file read-modify-write, atomic on disk and serialised both between the
// threads of this process and, through a lock file beside it, with other processes that use
// this class.
class PreferenceFile {
public:
  explicit PreferenceFile(std::string path);

  const std::string& path() const { return path_; }

  // The value under the key, or a null value when the file or the key is missing or the file
  // cannot be read as a dictionary.
  plist::Value object(std::string_view key) const;
  // The whole dictionary (empty when missing or unreadable).
  plist::Dictionary dictionary() const;

  // Sets one key. A null value or an empty key changes nothing, as a nil object or key does.
  // An unreadable file is replaced by a dictionary holding only the new pair.
  Expected<void> setObject(const plist::Value& value, const std::string& key);
  // Removes one key; a missing key is no failure.
  Expected<void> removeObject(const std::string& key);

private:
  template <typename Change> Expected<void> modify(Change&& change);

  std::string path_;
  std::mutex writeMutex_;
};

} // namespace kestrin
