#include "platform/Workspace.h"

#include <filesystem>

#include "plist/PropertyList.h"

namespace kestrin::platform {

namespace fs = std::filesystem;

namespace {

bool isBundleName(const fs::path& path) {
  return path.extension() == ".app";
}

std::optional<std::string> identifierOf(const fs::path& bundle) {
  auto info = plist::readFile(bundle / "Contents" / "Info.plist");
  if (!info) {
    return std::nullopt;
  }
  const plist::Value* identifier = info->get("CFBundleIdentifier");
  if (identifier == nullptr || identifier->asString() == nullptr) {
    return std::nullopt;
  }
  return *identifier->asString();
}

} // namespace

Workspace::Workspace(std::vector<std::string> applicationFolders,
                     std::optional<std::string> ownExecutable)
    : applicationFolders_(std::move(applicationFolders)), ownExecutable_(std::move(ownExecutable)) {
}

Workspace Workspace::forMachine(const std::string& localRoot, const std::string& home) {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  return Workspace({(fs::path(home) / "Applications").string(),
                    (fs::path(localRoot) / "Applications").string(),
                    (fs::path(localRoot) / "Applications" / "Utilities").string()},
                   ec ? std::nullopt : std::optional<std::string>(exe.string()));
}

std::optional<BundleInfo> Workspace::readBundle(const std::string& bundlePath) {
  fs::path bundle(bundlePath);
  auto info = plist::readFile(bundle / "Contents" / "Info.plist");
  if (!info || info->asDictionary() == nullptr) {
    return std::nullopt;
  }
  BundleInfo result;
  result.path = bundle.string();
  result.info = *info->asDictionary();
  const plist::Value* executable = result.info.find("CFBundleExecutable");
  std::string name =
      executable && executable->asString() ? *executable->asString() : bundle.stem().string();
  result.executablePath = (bundle / "Contents" / "MacOS" / name).string();
  return result;
}

std::optional<BundleInfo> Workspace::mainBundle() const {
  if (!ownExecutable_) {
    return std::nullopt;
  }
  // .../X.app/Contents/MacOS/X
  fs::path macos = fs::path(*ownExecutable_).parent_path();
  fs::path contents = macos.parent_path();
  fs::path bundle = contents.parent_path();
  if (macos.filename() != "MacOS" || contents.filename() != "Contents" || !isBundleName(bundle)) {
    return std::nullopt;
  }
  auto info = readBundle(bundle.string());
  if (info) {
    info->executablePath = *ownExecutable_;
  }
  return info;
}

std::optional<std::string> Workspace::iconFileForBundle(const std::string& bundlePath) const {
  std::error_code ec;
  fs::path resources = fs::path(bundlePath) / "Contents" / "Resources";
  auto info = plist::readFile(fs::path(bundlePath) / "Contents" / "Info.plist");
  const plist::Value* name = info ? info->get("CFBundleIconFile") : nullptr;
  if (name && name->asString() && !name->asString()->empty()) {
    fs::path icon = resources / *name->asString();
    if (!icon.has_extension()) {
      icon += ".png";
    }
    if (fs::is_regular_file(icon, ec)) {
      return icon.string();
    }
  }
  if (auto own = mainBundle()) {
    fs::path generic = fs::path(own->path) / "Contents" / "Resources" / kGenericApplicationIcon;
    if (fs::is_regular_file(generic, ec)) {
      return generic.string();
    }
  }
  return std::nullopt;
}

std::optional<std::string> Workspace::pathForBundleIdentifier(const std::string& identifier) const {
  if (auto own = mainBundle()) {
    const plist::Value* id = own->info.find("CFBundleIdentifier");
    if (id && id->asString() && *id->asString() == identifier) {
      return own->path;
    }
  }
  for (const std::string& folder : applicationFolders_) {
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      const fs::path& entry = it->path();
      if (isBundleName(entry)) {
        if (identifierOf(entry) == identifier) {
          return entry.string();
        }
      }
    }
  }
  return std::nullopt;
}

} // namespace kestrin::platform
