#include "app/BundleLocation.h"

#include <filesystem>

#include "foundation/QVCmdUtils.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "platform/Workspace.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

bool holdsAgent(const fs::path& bundle) {
  std::error_code ec;
  return fs::exists(bundle / "Contents/MacOS/Kestrin", ec);
}

} // namespace

std::optional<std::string> bundlePath(const QVLocalPaths& paths,
                                      const platform::Workspace& workspace) {
  try {
    fs::path candidate = workspace.pathForBundleIdentifier("com.quorvane.Kestrin").value_or("");
    if (candidate.empty() || !holdsAgent(candidate)) {
      fs::path cwd = fs::path(QVCmdUtils::applicationPath()).lexically_normal();
      if (cwd.has_filename() == false) {
        cwd = cwd.parent_path();
      }
      candidate = cwd.parent_path().parent_path();
    }
    if (!holdsAgent(candidate)) {
      candidate = fs::path(paths.libraryDirectory(false).value_or("/Library")) /
                  "PreferencePanes/Kestrin.prefPane";
    }
    return candidate.string();
  } catch (const std::exception& e) {
    QVLog::appendLogAndPrint("Exception in +[AppController bundlePath]. {}", e.what());
    return std::nullopt;
  }
}

} // namespace kestrin
