#include "operations/AgentIcons.h"

#include <filesystem>

#include "foundation/QVLog.h"
#include "platform/FileBytes.h"

namespace kestrin::operations {

void AgentIcons::setupIconDict() {
  static constexpr std::pair<const char*, const char*> kImages[] = {
      {"normal", "spanner-18.png"},
      {"highlight", "spanner-highlight-18.png"},
      {"maintenance", "spanner-maintenance-18.png"},
      {"disconnected", "spanner-disconnected-18.png"},
      {"smallServiceIcon", "smallServiceIcon.png"},
      {"largeServiceIcon", "largeServiceIcon.png"},
  };
  constexpr std::size_t kImageLimit = 1 << 20;
  std::filesystem::path resources =
      std::filesystem::path(bundle_.path().value_or("")) / "Contents/Resources";
  plist::Dictionary icons;
  for (const auto& [role, file] : kImages) {
    auto bytes = platform::readFileBytes((resources / file).string(), kImageLimit);
    if (bytes) {
      icons.set(role, std::move(*bytes));
    } else {
      QVLog::appendLog("Could not load image {}", bytes.message());
    }
  }
  std::lock_guard lock(mutex_);
  iconDict_ = std::move(icons);
}

plist::Value AgentIcons::iconDict() const {
  std::lock_guard lock(mutex_);
  return iconDict_;
}

void AgentIcons::reset() {
  std::lock_guard lock(mutex_);
  iconDict_ = plist::Value();
}

} // namespace kestrin::operations
