#pragma once

#include <mutex>
#include <string>

namespace kestrin {

// The process-wide notion of "the user's folder", "~/" expanded at creation. Any thread may
// read or replace it.
class QVUserDir {
public:
  static QVUserDir& sharedController();

  std::string userDir() const;
  void setUserDir(std::string userDir);

private:
  QVUserDir();
  mutable std::mutex mutex_;
  std::string userDir_;
};

} // namespace kestrin
