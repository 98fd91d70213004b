#include "app/Installer.h"

#include <cctype>
#include <filesystem>

#include <unistd.h>

#include "auth/PamService.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "platform/AtomicFile.h"
#include "platform/RootFiles.h"
#include "platform/ToolTable.h"

namespace kestrin {

namespace fs = std::filesystem;
using platform::Tool;

namespace {

bool fileExists(const fs::path& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

// A link counts as there, whether or not it leads anywhere.
bool entryExists(const fs::path& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

// The helper is a small program; anything far larger is not it.
constexpr std::size_t kHelperSizeLimit = 64 << 20;

// Leading digits as an integer, 0 where there are none.
int leadingInteger(const std::string& text) {
  int value = 0;
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) {
    ++i;
  }
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

} // namespace

Installer::Installer(Environment environment) : environment_(std::move(environment)) {
  if (!environment_.sleep) {
    environment_.sleep = [](std::chrono::seconds s) { ::sleep(static_cast<unsigned>(s.count())); };
  }
}

std::string Installer::unitPath() const {
  return (fs::path(environment_.systemRoot) / "etc/systemd/user" / kUnitName)
      .lexically_normal()
      .string();
}

std::string Installer::packagedUnitPath() const {
  return (fs::path(environment_.systemRoot) / "usr/lib/systemd/user" / kUnitName)
      .lexically_normal()
      .string();
}

std::string Installer::helperPath() const {
  fs::path helper = fs::path(platform::ToolTable::defaultPath(Tool::KestrinAuth)).relative_path();
  return (fs::path(environment_.systemRoot) / helper).lexically_normal().string();
}

std::string Installer::pamServicePath() const {
  return (fs::path(environment_.systemRoot) / "etc/pam.d/kestrin-auth").lexically_normal().string();
}

std::string Installer::unitText(const std::string& program, const std::string& workingDirectory) {
  // Restart=on-failure restarts after a non-zero exit or a crash and leaves a clean exit alone;
  // WantedBy=default.target starts it at every log-in. ConditionUser=!root keeps root's own
  // service manager (a console or SSH log-in as root) from starting an agent as root.
  return "[Unit]\n"
         "Description=Kestrin maintenance agent\n"
         "ConditionUser=!root\n"
         "\n"
         "[Service]\n"
         "Type=simple\n"
         "ExecStart=" +
         program +
         "\n"
         "WorkingDirectory=" +
         workingDirectory +
         "\n"
         "Restart=on-failure\n"
         "\n"
         "[Install]\n"
         "WantedBy=default.target\n";
}

std::optional<std::string> Installer::programPath() const {
  if (environment_.bundlePath) {
    fs::path inBundle = fs::path(*environment_.bundlePath) / "Contents/MacOS/Kestrin";
    if (fileExists(inBundle)) {
      return inBundle.string();
    }
  }
  auto library = environment_.paths.libraryDirectory(false);
  if (library) {
    fs::path inPane =
        fs::path(*library) / "PreferencePanes/Kestrin.prefPane/Contents/MacOS/Kestrin";
    if (fileExists(inPane)) {
      return inPane.string();
    }
  }
  return std::nullopt;
}

bool Installer::writeUnit(const std::string& path, const std::string& text) const {
  return platform::writeFileAtomically(path, text, 0644).ok();
}

std::optional<std::string> Installer::whyUntrusted(const std::string& program) const {
  if (auto why = platform::whyNotRootOwned(program)) {
    return why;
  }
  fs::path helper = fs::path(program).parent_path() / "kestrin-auth";
  return entryExists(helper) ? platform::whyNotRootOwned(helper) : std::nullopt;
}

void Installer::setupClient() {
  try {
    QVLog::appendLog("Setting up client...");
    std::optional<std::string> program = programPath();
    if (!program) {
      QVLog::console("Error - unable to determine application path. Please report this error to "
                     "Quorvane.");
      return;
    }
    if (auto why = whyUntrusted(*program)) {
      QVLog::appendLogAndPrint(
          "Error - refusing to set up from {}: {}.",
          fs::path(*program).parent_path().parent_path().parent_path().string(), *why);
      return;
    }
    const platform::ToolTable& tools = environment_.tools;
    auto enable = [&] {
      QVTaskEx::runTask(tools.path(Tool::Systemctl),
                        {"--root=" + environment_.systemRoot, "--global", "enable", kUnitName});
    };
    // An installed package owns the unit, the helper and the PAM file: copies of set-up's own
    // would outlive the package's removal.
    if (entryExists(packagedUnitPath())) {
      QVLog::appendLog("Using the unit that the package installed, {}.", packagedUnitPath());
      enable();
      return;
    }
    std::string text = unitText(*program, fs::path(*program).parent_path().string());
    std::string target = unitPath();
    std::string unitFolder = fs::path(target).parent_path().string();

    if (!writeUnit(target, text)) {
      std::string documents = environment_.paths.documentDirectory(true).value_or("");
      std::string copy = (fs::path(documents) / kUnitName).string();
      if (documents.empty() || !writeUnit(copy, text)) {
        QVLog::appendLog("Error: Unable to write LaunchAgent data. Please check you have correct "
                         "permissions for the directory {}",
                         unitFolder);
        return;
      }
      if (!environment_.privilegedMove || !environment_.privilegedMove(copy, target)) {
        QVLog::appendLog("Error: Unable to create LaunchAgent. Please check you have correct "
                         "permissions for the directory {}",
                         unitFolder);
      }
      environment_.sleep(std::chrono::seconds(1));
      std::error_code ignored;
      fs::remove(copy, ignored);
    }

    // Linux has no wheel group: root's own group stands for it.
    QVTaskEx::runTask(tools.path(Tool::Chown), {"root:root", "--", target});
    QVTaskEx::runTask(tools.path(Tool::Chmod), {"644", "--", target});
    enable();
    installAuthHelper(*program);
  } catch (const std::exception& e) {
    QVLog::appendLogAndPrint("Exception in +[AppController setupClient]. {}", e.what());
  }
}

// The bundle's helper is copied, never made setuid where it lies: the copy is a new file in a
// folder only root may change, so nobody can swap or rewrite what runs as root.
void Installer::installAuthHelper(const std::string& program) const {
  fs::path helper = fs::path(program).parent_path() / "kestrin-auth";
  if (!entryExists(helper)) {
    QVLog::appendLog("Unable to find {}; administrator rights will not be available.",
                     helper.string());
    return;
  }
  auto install = [](const fs::path& path, std::span<const std::uint8_t> bytes, mode_t mode) {
    auto done = platform::makeRootFolder(path.parent_path());
    if (done) {
      done = platform::installRootFile(path, bytes, mode);
    }
    if (!done) {
      QVLog::appendLog("Unable to install {}: {}", path.string(), done.message());
    }
  };
  auto bytes = platform::readRootFile(helper, kHelperSizeLimit);
  if (!bytes) {
    QVLog::appendLog("Unable to install {}: {}", helperPath(), bytes.message());
    return;
  }
  install(helperPath(), *bytes, 04755);
  // The helper checks passwords with its own PAM service, whose contents are fixed here.
  install(pamServicePath(),
          {reinterpret_cast<const std::uint8_t*>(auth::kPamServiceText.data()),
           auth::kPamServiceText.size()},
          0644);
}

void Installer::runClient() {
  std::optional<std::string> user = environment_.paths.username();
  if (!user) {
    QVLog::appendLog("Nobody is logged in at the console; the agent starts at the next log-in.");
    return;
  }
  const platform::ToolTable& tools = environment_.tools;
  int uid = leadingInteger(
      QVTaskEx::stringFromTask(tools.path(Tool::Id), {"-u", "--", *user}).value_or(""));
  if (uid <= 0) {
    QVLog::appendLog("Unable to find the user id of {}; the agent starts at the next log-in.",
                     *user);
    return;
  }
  // systemctl reaches a user's manager through that user's runtime folder, and only as that
  // user: --machine=USER@ would need systemd-machined, which a workstation need not have.
  QVTaskEx::Environment environment{{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"},
                                    {"XDG_RUNTIME_DIR", "/run/user/" + std::to_string(uid)}};
  auto systemctl = [&](std::initializer_list<std::string> arguments) {
    QVTaskEx::Arguments command{"-u", *user, "--", tools.path(Tool::Systemctl), "--user"};
    command.insert(command.end(), arguments);
    QVTaskEx::dataFromTask(tools.path(Tool::Runuser), command, nullptr, environment);
  };
  // Stopping first ends an instance that is already running, so starting gives exactly one
  // fresh instance; the reload makes the user's manager read the unit just written.
  systemctl({"daemon-reload"});
  systemctl({"stop", kUnitName});
  environment_.sleep(std::chrono::seconds(3));
  systemctl({"start", kUnitName});
}

void Installer::cleanupMountedDisks() {
  const QVLocalPaths& paths = environment_.paths;
  fs::path root(environment_.systemRoot);
  std::vector<fs::path> folders{root / "media"};
  if (auto user = paths.username()) {
    folders.push_back(root / "media" / *user);
    folders.push_back(root / "run/media" / *user);
  }
  for (const fs::path& folder : folders) {
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      std::string name = it->path().filename().string();
      // A prefix test, case-sensitive: "Kestrin 2.1" goes, "Old Kestrin" stays.
      if (name.rfind("Kestrin", 0) != 0) {
        continue;
      }
      QVLog::appendLog("Unmounting disk image {}...", name);
      QVTaskEx::runTask(environment_.tools.path(Tool::Umount),
                        {"--", it->path().lexically_normal().string()});
    }
  }
}

void Installer::runSetup() {
  QVLog::console("Setting up client...");
  if (::setuid(0) != 0) {
    // Set-up assumes it was started by root or its installer; carry on as the original does.
  }
  setupClient();
  cleanupMountedDisks();
  std::string console = environment_.paths.currentConsoleUser().value_or("");
  std::string id =
      QVTaskEx::stringFromTask(environment_.tools.path(Tool::Id), {"-u", console}).value_or("");
  QVLog::console("uid: {}", leadingInteger(id));
  QVLog::console("Running client...");
  // Set-up itself stays root: only the systemctl runs of runClient take the console user's id.
  runClient();
}

} // namespace kestrin
