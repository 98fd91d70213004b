#include "foundation/QVAuthorization.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <utility>

#include <unistd.h>

#include "auth/AuthStatus.h"
#include "auth/CredentialFrame.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"

namespace kestrin {

namespace fs = std::filesystem;
using Session = QVAuthorization::Session;

namespace {

// Asynchronous helper runs at once; later ones wait for a free thread. Tools with rights are
// few and an administrator starts them by hand, so the cap is never reached in use.
constexpr std::size_t kMaxHelperRuns = 16;
constexpr std::chrono::seconds kHelperThreadIdleTime{5};

constexpr const char* kInvalidCredentials = "Authorization failed. Invalid username or password";

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

SecretBuffer duplicate(const SecretBuffer& secret) {
  SecretBuffer copy(secret.size());
  copy.append(secret.data(), secret.size());
  return copy;
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
    : environment_(std::move(environment)), hasGUI_(hasGUI),
      helperRuns_(WorkerPool::Limits{kMaxHelperRuns, kHelperThreadIdleTime}) {
  // A root process leaves it unknown, and trashes into the local trash.
  if (!environment_.runningAsRoot) {
    userDirectory_ = environment_.paths.userDirectory();
  }
}

QVAuthorization::~QVAuthorization() = default;

Session QVAuthorization::authStart() const {
  if (environment_.runningAsRoot) {
    return Session(*this, true, {});
  }
  if (hasGUI_) {
    QVLog::console("Unable to authorize");
  }
  return Session(*this, false, {});
}

Session QVAuthorization::authStartWithUser(const std::optional<std::string>& user,
                                           const SecretBuffer& password) const {
  if (!user) {
    return Session(*this, false, {});
  }
  auth::CredentialFrame frame;
  if (!auth::encodeCredentials(*user, password.view(), frame)) {
    QVLog::appendLogAndPrint(kInvalidCredentials);
    return Session(*this, false, {});
  }
  // Asked also when the agent is root: a remote caller gets root's rights only with an
  // administrator's password, never because of who the agent happens to run as.
  std::vector<std::string> arguments = environment_.helperOptions;
  arguments.emplace_back(auth::kCheckOption);
  int status = QVTaskEx::terminationCodeFromTaskWithInput(
      environment_.tools.path(platform::Tool::KestrinAuth), arguments, duplicate(frame));
  if (status != 0) {
    auto refusal = auth::authStatusFromExit(status);
    if (refusal && auth::refusesCredentials(*refusal)) {
      QVLog::appendLogAndPrint(kInvalidCredentials);
    } else {
      QVLog::appendLog("Unable to create authRef - error {}", status);
    }
    return Session(*this, false, {});
  }
  if (environment_.runningAsRoot) {
    return Session(*this, true, {}); // the tools run here: the frame is wiped unused
  }
  return Session(*this, false, std::move(frame));
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
    QVLog::appendLogAndPrint(kInvalidCredentials);
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

// ---- Session

Session::Session(const QVAuthorization& owner, bool direct, SecretBuffer credentials)
    : owner_(&owner), authorized_(direct || !credentials.empty()), direct_(direct),
      credentials_(std::move(credentials)) {}

Session::Session(Session&& other) noexcept
    : owner_(other.owner_), authorized_(std::exchange(other.authorized_, false)),
      direct_(std::exchange(other.direct_, false)), credentials_(std::move(other.credentials_)) {}

Session& Session::operator=(Session&& other) noexcept {
  if (this != &other) {
    owner_ = other.owner_;
    authorized_ = std::exchange(other.authorized_, false);
    direct_ = std::exchange(other.direct_, false);
    credentials_ = std::move(other.credentials_); // wipes what this session held
  }
  return *this;
}

Session::~Session() {
  authEnd();
}

void Session::authEnd() {
  credentials_.wipe();
  authorized_ = false;
  direct_ = false;
}

SecretBuffer Session::credentialCopy() const {
  if (!authorized_) {
    if (owner_->hasGUI()) {
      QVLog::console("Unable to authorize");
    }
    return {};
  }
  return duplicate(credentials_);
}

int Session::authExecTask(const std::string& tool, const std::vector<std::string>& parameters,
                          bool async) {
  if (!exists(tool)) {
    QVLog::console("Unable to execute task: path {} doesn't exist", tool);
    return -2;
  }
  if (direct_) {
    if (async) {
      QVTaskEx::runTaskAndReturn(tool, parameters);
    } else {
      QVTaskEx::runTask(tool, parameters);
    }
    return 0;
  }
  // std::function wants a copyable task; the run's copy of the credentials is shared with
  // nobody else.
  auto frame = std::make_shared<SecretBuffer>(credentialCopy());
  if (frame->empty()) {
    return -1;
  }
  std::vector<std::string> arguments = owner_->helperArguments(tool, parameters);
  std::string helper = owner_->environment_.tools.path(platform::Tool::KestrinAuth);
  auto run = [helper, arguments, frame] {
    // The run's copy is gone once the helper has been started, however long its tool runs.
    int status = QVTaskEx::terminationCodeFromTaskWithInput(helper, arguments, std::move(*frame));
    if (helperRefused(helper, status)) {
      return status;
    }
    return 0; // the program ran; its own status is not the call's
  };
  if (async) {
    if (!owner_->helperRuns_.submit(run)) {
      return -1; // the agent is going away
    }
    return 0;
  }
  return run();
}

std::optional<std::string> Session::authOutputFromTask(const std::string& tool,
                                                       const std::vector<std::string>& parameters) {
  if (!exists(tool)) {
    QVLog::console("Unable to execute task: path {} doesn't exist", tool);
    return std::nullopt;
  }
  if (direct_) {
    return QVTaskEx::stringFromTask(tool, parameters, StringEncoding::UTF8);
  }
  SecretBuffer frame = credentialCopy();
  if (frame.empty()) {
    return std::nullopt;
  }
  std::string helper = owner_->environment_.tools.path(platform::Tool::KestrinAuth);
  auto captured = QVTaskEx::capturedFromTaskWithInput(
      helper, owner_->helperArguments(tool, parameters), std::move(frame));
  if (!captured || helperRefused(helper, captured->status)) {
    return std::nullopt;
  }
  return QVTaskEx::decode(captured->output, StringEncoding::UTF8);
}

bool Session::authRemoveFile(const std::string& path) {
  if (owner_->refuseSystemDirectory(path, "delete path")) {
    return false;
  }
  return authExecTask(owner_->environment_.tools.path(platform::Tool::Rm), {"-Rdf", "--", path},
                      false) == 0;
}

std::string Session::trashDestination(const std::string& path) const {
  const Environment& environment = owner_->environment_;
  const std::optional<std::string>& userDirectory = owner_->userDirectory_;
  fs::path source(path);
  std::string name = source.filename().string();
  fs::path destination;
  if (environment.runningAsRoot && userDirectory) {
    destination = fs::path(*userDirectory) / ".Trash" / name;
  } else {
    destination = fs::path(environment.paths.trashDirectory().value_or("")) / name;
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

bool Session::authTrashFile(const std::string& path, bool deleteOnRootAccount) {
  if (owner_->refuseSystemDirectory(path, "trash path")) {
    return false;
  }
  if (!owner_->userDirectory_ && deleteOnRootAccount && owner_->environment_.runningAsRoot) {
    return authRemoveFile(path);
  }
  return authMoveFile(path, trashDestination(path));
}

bool Session::authTrashFolderContents(const std::string& path, bool deleteOnRootAccount) {
  if (owner_->refuseSystemDirectory(path, "trash folder contents of path")) {
    return false;
  }
  bool all = true;
  for (const std::string& entry : entriesOf(path)) {
    bool done;
    if (owner_->userDirectory_ || !owner_->environment_.runningAsRoot || !deleteOnRootAccount) {
      done = authTrashFile(entry);
    } else {
      done = authExecTask(owner_->environment_.tools.path(platform::Tool::Rm),
                          {"-R", "-f", "--", entry}, false) == 0;
    }
    all = all && done;
  }
  return all;
}

bool Session::authMoveFile(const std::optional<std::string>& from,
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
  if (owner_->refuseSystemDirectory(*from, "move path")) {
    return false;
  }
  if (!exists(*from)) {
    return false;
  }
  return authExecTask(owner_->environment_.tools.path(platform::Tool::Mv), {"-f", "--", *from, *to},
                      false) == 0;
}

bool Session::authMoveFolderContents(const std::string& from, const std::string& to) {
  if (owner_->refuseSystemDirectory(from, "move contents of path")) {
    return false;
  }
  for (const std::string& entry : entriesOf(from)) {
    if (!authMoveFile(entry, (fs::path(to) / fs::path(entry).filename()).string())) {
      return false;
    }
  }
  return true;
}

bool Session::authCopyFile(const std::optional<std::string>& from,
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
  return authExecTask(owner_->environment_.tools.path(platform::Tool::Cp),
                      {"-f", "-p", "-R", "--", *from, *to}, direct_) == 0;
}

bool Session::authCreateDir(const std::string& path) {
  return authExecTask(owner_->environment_.tools.path(platform::Tool::Mkdir), {"-p", "--", path},
                      direct_) == 0;
}

} // namespace kestrin
