#include "foundation/PluginFolders.h"

#include <filesystem>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVUserDir.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

bool beginsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

} // namespace

std::string appendFolderText(const std::string& folder, std::string_view text) {
  while (beginsWith(text, "/")) {
    text.remove_prefix(1);
  }
  if (text.empty()) {
    return folder;
  }
  if (folder.empty()) {
    return std::string(text);
  }
  return folder.back() == '/' ? folder + std::string(text) : folder + "/" + std::string(text);
}

std::shared_ptr<const PluginRoots> PluginRoots::standard() {
  const QVLocalPaths& paths = QVLocalPaths::shared();
  PluginRoots roots = PluginFolders(paths).roots();
  roots.user = QVUserDir::sharedController().userDir();
  return std::make_shared<const PluginRoots>(std::move(roots));
}

PluginFolders::PluginFolders(const QVLocalPaths& paths)
    : localRoot_(paths.machine().localRoot), userDirectory_(paths.userDirectory().value_or("")),
      computerLibrary_(paths.libraryDirectory(false).value_or("")),
      userLibrary_(paths.libraryDirectory(true).value_or("")),
      computerSupport_(paths.appSupportDirectory(false).value_or("")),
      userPreferences_(paths.prefsDirectory(true).value_or("")),
      applications_(paths.applicationDirectory(false).value_or("")),
      movies_(paths.movieDirectory().value_or("")),
      disabled_(appendFolderText(computerSupport_, kDisabledFolder)),
      typeBases_{appendFolderText(computerLibrary_, "Plug-Ins/FxPlug"),
                 appendFolderText(userLibrary_, "Plug-Ins/FxPlug"),
                 appendFolderText(computerSupport_, "/Final Cut Pro System Support/Plugins"),
                 appendFolderText(userPreferences_, "/Final Cut Pro User Data/Plugins"),
                 appendFolderText(computerLibrary_, "Audio/Plug-Ins/Components"),
                 appendFolderText(userLibrary_, "Audio/Plug-Ins/Components")} {}

std::vector<PluginFolders::Row>
PluginFolders::table(const std::vector<std::string>& premiereVersions) const {
  return {
      {typeBases_[0], "FxPlug"},
      {typeBases_[1], "FxPlug"},
      {typeBases_[2], "FxScript"},
      {typeBases_[3], "FxScript"},
      {typeBases_[4], "Audio Unit"},
      {typeBases_[5], "Audio Unit"},
      {appendFolderText(applications_, "/Avid Media Composer/SupportingFiles/AVX_Plug-Ins"),
       "Avid AVX"},
      {appendFolderText(applications_, "/Avid Symphony/SupportingFiles/AVX_Plug-Ins"), "Avid AVX"},
      {appendFolderText(computerSupport_, "Avid/AVX2_Plug-ins"), "Avid AVX"},
      {appendFolderText(computerSupport_, "Digidesign/Plug-Ins"), "Avid RTAS"},
      {mediaCoreFolder(premiereVersions), "Adobe Plugin"},
      {appendFolderText(computerLibrary_, "/Audio/Plug-Ins/VST"), "VST"},
      {appendFolderText(userLibrary_, "/Audio/Plug-Ins/VST"), "VST"},
      // The Final Cut Pro templates folder, reported as Motion templates: deliberately so.
      {appendFolderText(computerSupport_, "/Final Cut Pro/Templates.localized"), "Motion Template"},
      {appendFolderText(movies_, "/Motion Templates.localized"), "Motion Template"},
  };
}

std::string PluginFolders::mediaCoreFolder(const std::vector<std::string>& premiereVersions) const {
  std::string suite = "6";
  if (!premiereVersions.empty()) {
    const std::string& last = premiereVersions.back();
    std::string candidate =
        last.size() >= 2 && last.ends_with(".0") ? last.substr(0, 1) : std::string(last);
    // The version is read from a bundle anyone may have put in Applications: it names a folder
    // under Plug-ins, never a path out of it.
    if (!candidate.empty() && candidate.find('/') == std::string::npos && candidate != "." &&
        candidate != "..") {
      suite = candidate;
    }
  }
  return appendFolderText(computerSupport_, "/Adobe/Common/Plug-ins/CS" + suite + "/MediaCore");
}

bool PluginFolders::isDisabled(std::string_view path) const {
  return beginsWith(path, disabled_);
}

std::string PluginFolders::withoutDisabledPrefix(const std::string& path) const {
  return isDisabled(path) ? path.substr(disabled_.size()) : path;
}

std::int64_t PluginFolders::accessTypeOf(const std::string& path) const {
  return beginsWith(withoutDisabledPrefix(path), computerLibrary_) ? 0 : 1;
}

std::optional<std::string> PluginFolders::typeFolder(std::string_view type, bool userDomain) const {
  if (type == "FxPlug") {
    return typeBases_[userDomain ? 1 : 0];
  }
  if (type == "FxScript") {
    return typeBases_[userDomain ? 3 : 2];
  }
  if (type == "Audio Unit") {
    return typeBases_[userDomain ? 5 : 4];
  }
  return std::nullopt;
}

PluginRoots PluginFolders::roots() const {
  return {localRoot_, userDirectory_, disabled_};
}

bool PluginFolders::isInside(const std::string& path, const std::string& folder) {
  fs::path given(path);
  if (!given.is_absolute() || folder.empty()) {
    return false;
  }
  for (const fs::path& component : given) {
    if (component == "." || component == "..") {
      return false;
    }
  }
  auto strictlyBelow = [](const fs::path& inner, const fs::path& outer) {
    std::string in = inner.string();
    std::string out = outer.string();
    while (out.size() > 1 && out.back() == '/') {
      out.pop_back();
    }
    return in.size() > out.size() + 1 && beginsWith(in, out == "/" ? out : out + "/");
  };
  auto atOrBelow = [&](const fs::path& inner, const fs::path& outer) {
    return inner == outer || strictlyBelow(inner, outer);
  };
  fs::path normal = given.lexically_normal();
  fs::path base = fs::path(folder).lexically_normal();
  if (!strictlyBelow(normal, base)) {
    return false;
  }
  std::error_code ec;
  fs::path holder = fs::weakly_canonical(normal.parent_path(), ec);
  if (ec) {
    return false;
  }
  fs::path resolvedBase = fs::weakly_canonical(base, ec);
  return !ec && atOrBelow(holder, resolvedBase);
}

} // namespace kestrin
