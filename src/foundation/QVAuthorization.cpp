#include "foundation/QVAuthorization.h"

#include <ctime>
#include <filesystem>
#include <thread>

#include <unistd.h>

#include "auth/AuthStatus.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

std::string timestamp() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local);
  return text;
}

bool exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

std::vector<std::string> entriesOf(const std::string& folder) {
  std::vector<std::string> entries;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) {
    entries.push_back(entry.path().string());
  }
  return entries;
}

} // namespace

QVAuthorization& QVAuthorization::sharedController(bool hasGUI) {
  static QVAuthorization instance(
      {QVLocalPaths::shared(), platform::ToolTable::shared(), ::getuid() == 0}, hasGUI);
  return instance;
}

QVAuthorization::QVAuthorization(Environment environment, bool hasGUI)
    : environment_(std::move(environment)), hasGUI_(hasGUI) {
  // A root process leaves it unknown, and trashes into the local trash.
  if (!environment_.runningAsRoot) {
    userDirectory_ = environment_.paths.userDirectory();
  }
}

QVAuthorization::~QVAuthorization() {
  authEnd();
}

bool QVAuthorization::isAuthorized() const {
  std::lock_guard lock(mutex_);
  return environment_.runningAsRoot || credentials_ != nullptr;
}

bool QVAuthorization::authStart() {
  if (isAuthorized()) {
    return true;
  }
  if (hasGUI_) {
    QVLog::console("Unable to authorize");
  }
  return false;
}

bool QVAuthorization::authStartWithUser(const std::optional<std::string>& user,
                                        const std::optional<std::string>& password) {
  if (environment_.runningAsRoot) {
    return true;
  }
  if (!user || !password) {
    return false;
  }
  auto frame = std::make_unique<auth::CredentialFrame>();
  if (!auth::encodeCredentials(*user, *password, *frame)) {
    QVLog::appendLogAndPrint("Authorization failed. Invalid username or password");
    return false;
  }
  std::vector<std::string> arguments = environment_.helperOptions;
  arguments.emplace_back(auth::kCheckOption);
  int status = QVTaskEx::terminationCodeFromTaskWithInput(
      environment_.tools.path(platform::Tool::KestrinAuth), arguments,
      {frame->data(), frame->size()});
  if (status != 0) {
    auto refusal = auth::authStatusFromExit(status);
    if (refusal && auth::refusesCredentials(*refusal)) {
      QVLog::appendLogAndPrint("Authorization failed. Invalid username or password");
    } else {
      QVLog::appendLog("Unable to create authRef - error {}", status);
    }
    return false;
  }
  std::lock_guard lock(mutex_);
  credentials_ = std::move(frame);
  return true;
}

void QVAuthorization::authEnd() {
  std::lock_guard lock(mutex_);
  credentials_.reset(); // the buffer wipes itself
}

int QVAuthorization::authExecTask(const std::string& tool,
                                  const std::vector<std::string>& parameters, bool async) {
  if (!exists(tool)) {
    QVLog::console("Unable to execute task: path {} doesn't exist", tool);
    return -2;
  }
  if (environment_.runningAsRoot) {
    if (async) {
      QVTaskEx::runTaskAndReturn(tool, parameters);
    } else {
      QVTaskEx::runTask(tool, parameters);
    }
    return 0;
  }
  auto frame = credentialCopy();
  if (!frame) {
    return -1;
  }
  std::vector<std::string> arguments = helperArguments(tool, parameters);
  std::string helper = environment_.tools.path(platform::Tool::KestrinAuth);
  auto run = [helper, arguments, frame] {
    int status = QVTaskEx::terminationCodeFromTaskWithInput(helper, arguments,
                                                            {frame->data(), frame->size()});
    frame->wipe();
    if (helperRefused(helper, status)) {
      return status;
    }
    return 0; // the program ran; its own status is not the call's
  };
  if (async) {
    std::thread(run).detach();
    return 0;
  }
  return run();
}

std::optional<std::string>
QVAuthorization::authOutputFromTask(const std::string& tool,
                                    const std::vector<std::string>& parameters) {
  if (!exists(tool)) {
    QVLog::console("Unable to execute task: path {} doesn't exist", tool);
    return std::nullopt;
  }
  if (environment_.runningAsRoot) {
    return QVTaskEx::stringFromTask(tool, parameters, StringEncoding::UTF8);
  }
  auto frame = credentialCopy();
  if (!frame) {
    return std::nullopt;
  }
  std::string helper = environment_.tools.path(platform::Tool::KestrinAuth);
  auto captured = QVTaskEx::capturedFromTaskWithInput(helper, helperArguments(tool, parameters),
                                                      {frame->data(), frame->size()});
  frame->wipe();
  if (!captured || helperRefused(helper, captured->status)) {
    return std::nullopt;
  }
  return QVTaskEx::decode(captured->output, StringEncoding::UTF8);
}

std::shared_ptr<auth::CredentialFrame> QVAuthorization::credentialCopy() {
  if (!isAuthorized() && !authStart()) {
    return nullptr;
  }
  auto frame = std::make_shared<auth::CredentialFrame>();
  std::lock_guard lock(mutex_);
  if (!credentials_) {
    return nullptr; // ended meanwhile
  }
  frame->append(credentials_->data(), credentials_->size());
  return frame;
}

std::vector<std::string>
QVAuthorization::helperArguments(const std::string& tool,
                                 const std::vector<std::string>& parameters) const {
  std::vector<std::string> arguments = environment_.helperOptions;
  arguments.emplace_back("--");
  arguments.push_back(tool);
  arguments.insert(arguments.end(), parameters.begin(), parameters.end());
  return arguments;
}

bool QVAuthorization::helperRefused(const std::string& helper, int status) {
  if (status == -1) {
    QVLog::appendLog("Unable to run {}", helper);
    return true;
  }
  auto refusal = auth::authStatusFromExit(status);
  if (!refusal) {
    return false;
  }
  if (auth::refusesCredentials(*refusal)) {
    QVLog::appendLogAndPrint("Authorization failed. Invalid username or password");
  } else {
    QVLog::appendLog("Privileged execution failed: {}", auth::describe(*refusal));
  }
  return true;
}

bool QVAuthorization::refuseSystemDirectory(const std::string& path, const char* message) const {
  if (environment_.paths.isPathSystemDirectory(path, true)) {
    QVLog::console("Unable to {} {} because it is a system directory.", message, path);
    return true;
  }
  return false;
}

bool QVAuthorization::authRemoveFile(const std::string& path) {
  if (refuseSystemDirectory(path, "delete path")) {
    return false;
  }
  return authExecTask(environment_.tools.path(platform::Tool::Rm), {"-Rdf", path}, false) == 0;
}

std::string QVAuthorization::trashDestination(const std::string& path) const {
  fs::path source(path);
  std::string name = source.filename().string();
  fs::path destination;
  if (environment_.runningAsRoot && userDirectory_) {
    destination = fs::path(*userDirectory_) / ".Trash" / name;
  } else {
    destination = fs::path(environment_.paths.trashDirectory().value_or("")) / name;
  }
  if (exists(destination.string())) {
    std::string extension = source.extension().string();
    if (!extension.empty()) {
      extension.erase(0, 1);
    }
    // A source without an extension ends in a dot: the name has always been built this way.
    destination = destination.parent_path() /
                  (destination.stem().string() + "_" + timestamp() + "." + extension);
  }
  return destination.string();
}

bool QVAuthorization::authTrashFile(const std::string& path, bool deleteOnRootAccount) {
  if (refuseSystemDirectory(path, "trash path")) {
    return false;
  }
  if (!userDirectory_ && deleteOnRootAccount && environment_.runningAsRoot) {
    return authRemoveFile(path);
  }
  return authMoveFile(path, trashDestination(path));
}

bool QVAuthorization::authTrashFolderContents(const std::string& path, bool deleteOnRootAccount) {
  if (refuseSystemDirectory(path, "trash folder contents of path")) {
    return false;
  }
  bool all = true;
  for (const std::string& entry : entriesOf(path)) {
    bool done;
    if (userDirectory_ || !environment_.runningAsRoot || !deleteOnRootAccount) {
      done = authTrashFile(entry);
    } else {
      done = authExecTask(environment_.tools.path(platform::Tool::Rm), {"-R", "-f", entry},
                          false) == 0;
    }
    all = all && done;
  }
  return all;
}

bool QVAuthorization::authMoveFile(const std::optional<std::string>& from,
                                   const std::optional<std::string>& to) {
  if (!from) {
    QVLog::appendLog("Error in authMoveFile: old path is null");
  }
  if (!to) {
    QVLog::appendLog("Error in authMoveFile: new path is null");
  }
  if (!from || !to) {
    return false;
  }
  if (refuseSystemDirectory(*from, "move path")) {
    return false;
  }
  if (!exists(*from)) {
    return false;
  }
  return authExecTask(environment_.tools.path(platform::Tool::Mv), {"-f", *from, *to}, false) == 0;
}

bool QVAuthorization::authMoveFolderContents(const std::string& from, const std::string& to) {
  if (refuseSystemDirectory(from, "move contents of path")) {
    return false;
  }
  for (const std::string& entry : entriesOf(from)) {
    if (!authMoveFile(entry, (fs::path(to) / fs::path(entry).filename()).string())) {
      return false;
    }
  }
  return true;
}

bool QVAuthorization::authCopyFile(const std::optional<std::string>& from,
                                   const std::optional<std::string>& to) {
  if (!from) {
    QVLog::appendLog("Error in authCopyFile: old path is null");
  }
  if (!to) {
    QVLog::appendLog("Error in authCopyFile: new path is null");
  }
  if (!from || !to || !exists(*from)) {
    return false;
  }
  // As root the copy is only started: it answers true whatever the copy does later.
  return authExecTask(environment_.tools.path(platform::Tool::Cp), {"-f", "-p", "-R", *from, *to},
                      environment_.runningAsRoot) == 0;
}

bool QVAuthorization::authCreateDir(const std::string& path) {
  return authExecTask(environment_.tools.path(platform::Tool::Mkdir), {"-p", path},
                      environment_.runningAsRoot) == 0;
}

} // namespace kestrin
