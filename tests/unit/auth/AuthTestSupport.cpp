#include "AuthTestSupport.h"

#include <csignal>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "auth/CredentialFrame.h"

namespace kestrin::testing {
namespace {

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (auto& s : strings) {
    out.push_back(s.data());
  }
  out.push_back(nullptr);
  return out;
}

std::string randomText(std::size_t length, std::string_view alphabet) {
  static std::mt19937_64 generator{std::random_device{}()};
  std::uniform_int_distribution<std::size_t> pick(0, alphabet.size() - 1);
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += alphabet[pick(generator)];
  }
  return text;
}

// Quiet: userdel's complaint about a missing mail spool is noise in the test log.
int runQuietly(const std::vector<std::string>& argv, const std::string& input = {}) {
  std::vector<std::string> wrapped = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>/dev/null"};
  wrapped.insert(wrapped.end(), argv.begin(), argv.end());
  return runProgram(wrapped, input).status;
}

} // namespace

RunResult runProgram(const std::vector<std::string>& argv, const std::string& input,
                     const std::optional<Identity>& identity,
                     const std::vector<std::string>& environment) {
  int in[2], out[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  // Everything the child needs is prepared here: after fork only async-signal-safe calls.
  std::vector<std::string> arguments = argv;
  auto argumentPointers = pointers(arguments);
  std::vector<std::string> variables = environment;
  auto variablePointers = pointers(variables);

  pid_t pid = ::fork();
  if (pid < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (pid == 0) {
    if (identity) {
      if (::setgroups(identity->groups.size(), identity->groups.data()) != 0 ||
          ::setresgid(identity->gid, identity->gid, identity->gid) != 0 ||
          ::setresuid(identity->uid, identity->uid, identity->uid) != 0) {
        ::_exit(125);
      }
    }
    ::dup2(in[0], STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::closefrom(STDERR_FILENO + 1);
    if (environment.empty()) {
      ::execv(argumentPointers[0], argumentPointers.data());
    } else {
      ::execve(argumentPointers[0], argumentPointers.data(), variablePointers.data());
    }
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  // The inputs are a few hundred bytes: they fit in the pipe whether or not the child reads.
  auto* sigpipe = std::signal(SIGPIPE, SIG_IGN);
  [[maybe_unused]] auto written = ::write(in[1], input.data(), input.size());
  std::signal(SIGPIPE, sigpipe);
  ::close(in[1]);

  RunResult result;
  char buffer[4096];
  ssize_t got;
  while ((got = ::read(out[0], buffer, sizeof buffer)) != 0) {
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      break;
    }
    result.output.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(out[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ThrowawayUser::ThrowawayUser(bool administrator) {
  name_ = "kt" + randomText(10, "abcdefghijklmnopqrstuvwxyz0123456789");
  password_ = randomText(8, "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnpqrstuvwxyz") + " " +
              randomText(8, "23456789!%+-./:=@_");
  if (::geteuid() != 0) {
    error_ = "creating users needs root";
    return;
  }
  if (runQuietly({"/usr/sbin/useradd", "-m", "-s", "/bin/sh", name_}) != 0) {
    error_ = "useradd failed for " + name_;
    return;
  }
  created_ = true;
  if (runQuietly({"/usr/sbin/chpasswd"}, name_ + ":" + password_ + "\n") != 0) {
    error_ = "chpasswd failed for " + name_;
    return;
  }
  if (administrator && runQuietly({"/usr/sbin/usermod", "-aG", "sudo", name_}) != 0) {
    error_ = "usermod -aG sudo failed for " + name_;
    return;
  }
  const passwd* entry = ::getpwnam(name_.c_str());
  if (entry == nullptr) {
    error_ = "the new user " + name_ + " is not in the password database";
    return;
  }
  home_ = entry->pw_dir;
  ok_ = true;
}

ThrowawayUser::~ThrowawayUser() {
  if (created_) {
    runQuietly({"/usr/sbin/userdel", "-r", name_});
  }
}

Identity ThrowawayUser::identity() const {
  Identity identity;
  const passwd* entry = ::getpwnam(name_.c_str());
  if (entry == nullptr) {
    throw std::runtime_error("no such user " + name_);
  }
  identity.uid = entry->pw_uid;
  identity.gid = entry->pw_gid;
  int count = 64;
  identity.groups.resize(static_cast<std::size_t>(count));
  while (::getgrouplist(name_.c_str(), identity.gid, identity.groups.data(), &count) == -1) {
    identity.groups.resize(static_cast<std::size_t>(count));
  }
  identity.groups.resize(static_cast<std::size_t>(count));
  return identity;
}

InstalledCopy::InstalledCopy(const std::filesystem::path& built, bool setuidRoot) {
  namespace fs = std::filesystem;
  struct statvfs info {};
  if (setuidRoot &&
      (::statvfs(folder_.path().c_str(), &info) != 0 || (info.f_flag & ST_NOSUID) != 0)) {
    unusableBecause_ = folder_.path().string() + " is on a file system mounted nosuid";
    return;
  }
  path_ = folder_.path() / built.filename();
  std::error_code error;
  fs::copy_file(built, path_, error);
  if (error || ::chown(path_.c_str(), 0, 0) != 0 || ::chmod(folder_.path().c_str(), 0755) != 0 ||
      ::chmod(path_.c_str(), setuidRoot ? 04755 : 0755) != 0) {
    unusableBecause_ = "could not install a copy of " + built.string();
  }
}

std::string credentialFrame(const std::string& user, const std::string& password) {
  auth::CredentialFrame frame;
  if (!auth::encodeCredentials(user, password, frame)) {
    throw std::invalid_argument("credentials cannot be framed");
  }
  return std::string(reinterpret_cast<const char*>(frame.data()), frame.size());
}

} // namespace kestrin::testing
