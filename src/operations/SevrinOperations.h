#pragma once

#include <mutex>
#include <optional>

#include "operations/OperationTable.h"
#include "plist/Value.h"

namespace kestrin {
class QVLocalPaths;
}

namespace kestrin::operations {

class ErrorChannel;

// This machine's system profile for the maker's tool Sevrin, which compares system setups.
// Gathering it walks the frameworks and kernel extensions and is slow, so it is gathered once
// per process (at start-up, by cacheSevrinSystemInfo) and never refreshed while the agent runs.
// Callers that come while it is being gathered wait for it, so every caller receives the same
// profile.
class SevrinOperations {
public:
  SevrinOperations(const QVLocalPaths& paths, ErrorChannel& channel)
      : paths_(paths), channel_(channel) {}
  void registerIn(OperationTable& table);

  plist::Dictionary sevrinSystemInfo();
  // The start-up's work, not a remote operation: fills the cache.
  void cacheSevrinSystemInfo();

private:
  const plist::Dictionary& profile();

  const QVLocalPaths& paths_;
  ErrorChannel& channel_;
  std::mutex mutex_;
  std::optional<plist::Dictionary> profile_; // under mutex_; never replaced once set
};

} // namespace kestrin::operations
