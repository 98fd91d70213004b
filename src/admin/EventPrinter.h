#pragma once

#include <atomic>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "admin/QVErrorCallback.h"

namespace kestrin::admin {

// Prints every event an agent pushes, one line each ("event NAME DETAIL"), after `tag` when
// there is one: a fleet's events name their agent. The newest queue entry is printed as it
// arrives, after the callback has dropped duplicates. Lines of several printers sharing a
// stream never interleave.
class EventPrinter : public QVErrorCallback::Parent {
public:
  explicit EventPrinter(std::ostream& out, std::string tag = "");

  // The callback whose queue "QVAmbrantErrorLabelRefresh" announces; may stay unset.
  void setCallback(const QVErrorCallback* callback) { callback_.store(callback); }

  void postLocalNotification(const std::string& name) override;
  void serviceEvent(const std::string& selector,
                    const std::vector<plist::Value>& arguments) override;
  // One line, under the lock that every printer shares.
  void print(const std::string& what, const std::string& detail);

private:
  std::ostream& out_;
  std::string tag_;
  // Set once the connection is made, while its events may already be arriving.
  std::atomic<const QVErrorCallback*> callback_{nullptr};
};

// The lock every printer writing to a terminal or a pipe takes, so that no line is cut.
std::mutex& outputLock();

} // namespace kestrin::admin
