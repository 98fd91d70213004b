#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "plist/Value.h"

namespace kestrin::operations {

// The agent's own bundle (Kestrin.app) and its Info.plist, read afresh on every question so an
// update of the bundle in place is seen at once.
class AgentBundle {
public:
  static constexpr const char* kBundleIdentifier = "com.quorvane.Kestrin";
  static constexpr const char* kApplicationName = "Kestrin";

  // Resolved by the caller, so that tests can point the agent at a throwaway bundle.
  explicit AgentBundle(std::optional<std::string> path) : path_(std::move(path)) {}

  const std::optional<std::string>& path() const { return path_; }
  // The value under the key in Contents/Info.plist, or null.
  plist::Value objectForInfoDictionaryKey(std::string_view key) const;
  // "CFBundleVersion" / "CFBundleShortVersionString", or "Unknown".
  std::string clientVersion() const;
  std::string clientVersionString() const;

private:
  std::optional<std::string> path_;
};

} // namespace kestrin::operations
