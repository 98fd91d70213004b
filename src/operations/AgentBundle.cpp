#include "operations/AgentBundle.h"

#include <filesystem>

#include "plist/PropertyList.h"

namespace kestrin::operations {

plist::Value AgentBundle::objectForInfoDictionaryKey(std::string_view key) const {
  if (!path_) {
    return {};
  }
  auto info = plist::readFile(std::filesystem::path(*path_) / "Contents" / "Info.plist");
  if (!info) {
    return {};
  }
  const plist::Value* value = info->get(key);
  return value ? *value : plist::Value();
}

std::string AgentBundle::clientVersion() const {
  plist::Value version = objectForInfoDictionaryKey("CFBundleVersion");
  return version.asString() ? *version.asString() : "Unknown";
}

std::string AgentBundle::clientVersionString() const {
  plist::Value version = objectForInfoDictionaryKey("CFBundleShortVersionString");
  return version.asString() ? *version.asString() : "Unknown";
}

} // namespace kestrin::operations
