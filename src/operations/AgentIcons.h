#pragma once

#include <mutex>

#include "operations/AgentBundle.h"
#include "plist/Value.h"

namespace kestrin::operations {

// The images of the status item and of the agent's service ("iconDict"), loaded from the
// bundle's Resources on first need. Thread-safe.
class AgentIcons {
public:
  explicit AgentIcons(const AgentBundle& bundle) : bundle_(bundle) {}

  // Loads the images by role ("normal", "highlight", "maintenance", "disconnected",
  // "smallServiceIcon", "largeServiceIcon"); an image that cannot be read is logged and left out.
  void setupIconDict();
  // The dictionary, or null until setupIconDict has run.
  plist::Value iconDict() const;
  void reset();

private:
  const AgentBundle& bundle_;
  mutable std::mutex mutex_;
  plist::Value iconDict_;
};

} // namespace kestrin::operations
