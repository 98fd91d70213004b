#include "foundation/QVLocalPaths.h"

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <vector>

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include "platform/ConsoleUser.h"

namespace kestrin {

namespace fs = std::filesystem;

namespace {

std::optional<std::string>
passwdField(const std::function<int(struct passwd*, char*, std::size_t, struct passwd**)>& lookup,
            bool wantHome) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (lookup(&entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::string(wantHome ? found->pw_dir : found->pw_name);
}

std::optional<std::string> homeOfUserName(const std::string& name) {
  return passwdField([&](struct passwd* e, char* b, std::size_t n,
                         struct passwd** r) { return getpwnam_r(name.c_str(), e, b, n, r); },
                     true);
}

std::optional<std::string> passwdOfUid(uid_t uid, bool wantHome) {
  return passwdField([&](struct passwd* e, char* b, std::size_t n,
                         struct passwd** r) { return getpwuid_r(uid, e, b, n, r); },
                     wantHome);
}

std::string envOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

// "/" + "Library" gives "/Library", never "//Library"; no trailing slash.
std::string join(const std::string& base, const std::string& relative) {
  std::string path = (fs::path(base) / relative).lexically_normal().string();
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

bool startsWith(const std::string& s, std::string_view prefix) {
  return s.rfind(prefix, 0) == 0;
}

// The folder of each kind inside a domain's base, as the original platform lays it out. Kinds
// that a domain does not have answer nullopt (there is no computer-wide Documents folder).
std::optional<std::string> relativeFolder(DirectoryKind kind, DomainMask domain) {
  bool user = domain == DomainMask::User;
  bool system = domain == DomainMask::System;
  switch (kind) {
  case DirectoryKind::Application:
    return system ? "System/Applications" : "Applications";
  case DirectoryKind::AdminApplication:
    return system ? "System/Applications/Utilities" : "Applications/Utilities";
  case DirectoryKind::Library:
    return system ? "System/Library" : "Library";
  case DirectoryKind::Documentation:
    return system ? "System/Library/Documentation" : "Library/Documentation";
  case DirectoryKind::Caches:
    return system ? "System/Library/Caches" : "Library/Caches";
  case DirectoryKind::ApplicationSupport:
    return system ? std::nullopt : std::optional<std::string>("Library/Application Support");
  case DirectoryKind::Document:
    return user ? std::optional<std::string>("Documents") : std::nullopt;
  case DirectoryKind::Desktop:
    return user ? std::optional<std::string>("Desktop") : std::nullopt;
  case DirectoryKind::Movies:
    return user ? std::optional<std::string>("Movies") : std::nullopt;
  }
  return std::nullopt;
}

} // namespace

QVLocalPaths::QVLocalPaths(Machine machine) : machine_(std::move(machine)) {
  if (!machine_.consoleUser) {
    machine_.consoleUser = [] { return std::optional<std::string>(); };
  }
  if (!machine_.homeOfUser) {
    machine_.homeOfUser = [](const std::string&) { return std::optional<std::string>(); };
  }
}

QVLocalPaths::Machine QVLocalPaths::machineFromEnvironment() {
  Machine machine;
  machine.realUid = getuid();
  machine.localRoot = envOr("KESTRIN_ROOT", kDefaultLocalRoot);
  machine.home = envOr("HOME", passwdOfUid(machine.realUid, true).value_or("/"));
  machine.tempDirectory = envOr("TMPDIR", "/tmp");
  machine.ownUserName =
      passwdOfUid(machine.realUid, false).value_or(std::to_string(machine.realUid));
  machine.consoleUser = [] { return platform::consoleUserName(); };
  machine.homeOfUser = homeOfUserName;
  return machine;
}

const QVLocalPaths& QVLocalPaths::shared() {
  static const QVLocalPaths instance(machineFromEnvironment());
  return instance;
}

std::optional<std::string> QVLocalPaths::pathForDirectory(DirectoryKind kind,
                                                          DomainMask domain) const {
  std::optional<std::string> relative = relativeFolder(kind, domain);
  if (!relative) {
    return std::nullopt;
  }
  bool user = domain == DomainMask::User;
  std::string path = join(user ? machine_.home : machine_.localRoot, *relative);
  if (!(runningAsRoot() && user)) {
    return path;
  }
  // Root's user-domain answers land in the console user's home: drop root's own home from the
  // front and re-root what is left.
  std::string rest = path;
  const std::string& rootHome = machine_.home;
  if (rootHome.size() > 1 && startsWith(path, rootHome) &&
      (path.size() == rootHome.size() || path[rootHome.size()] == '/')) {
    rest = path.substr(rootHome.size());
  }
  std::optional<std::string> home = userDirectory();
  if (!home) {
    return std::nullopt;
  }
  return rest.empty() ? *home : join(*home, rest.substr(rest.front() == '/' ? 1 : 0));
}

std::optional<std::string> QVLocalPaths::applicationDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::Application, user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::adminApplicationDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::AdminApplication,
                          user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::documentDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::Document, user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::libraryDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::Library, user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::prefsDirectory(bool user) const {
  auto library = libraryDirectory(user);
  return library ? std::optional(join(*library, "Preferences")) : std::nullopt;
}
std::optional<std::string> QVLocalPaths::cacheDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::Caches, user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::appSupportDirectory(bool user) const {
  return pathForDirectory(DirectoryKind::ApplicationSupport,
                          user ? DomainMask::User : DomainMask::Local);
}
std::optional<std::string> QVLocalPaths::logDirectory(bool user) const {
  auto library = libraryDirectory(user);
  return library ? std::optional(join(*library, "Logs")) : std::nullopt;
}
std::optional<std::string> QVLocalPaths::movieDirectory() const {
  return pathForDirectory(DirectoryKind::Movies, DomainMask::User);
}
std::optional<std::string> QVLocalPaths::desktopDirectory() const {
  return pathForDirectory(DirectoryKind::Desktop, DomainMask::User);
}
std::optional<std::string> QVLocalPaths::systemLibraryDirectory() const {
  return pathForDirectory(DirectoryKind::Library, DomainMask::System);
}
std::optional<std::string> QVLocalPaths::localDocumentationDirectory() const {
  return pathForDirectory(DirectoryKind::Documentation, DomainMask::Local);
}

std::optional<std::string> QVLocalPaths::trashDirectory() const {
  auto home = userDirectory();
  return home ? std::optional(join(*home, ".Trash")) : std::nullopt;
}

std::optional<std::string> QVLocalPaths::userDirectory() const {
  if (!runningAsRoot()) {
    return machine_.home;
  }
  std::optional<std::string> console = currentConsoleUser();
  if (!console) {
    // Nobody at the console: the answer for a null user name is the process's own home.
    return machine_.home;
  }
  return machine_.homeOfUser(*console);
}

std::optional<std::string> QVLocalPaths::username() const {
  if (runningAsRoot()) {
    return currentConsoleUser();
  }
  return machine_.ownUserName;
}

std::optional<std::string> QVLocalPaths::currentConsoleUser() const {
  std::optional<std::string> user = machine_.consoleUser();
  if (!user || user->empty() || *user == "loginwindow") {
    return std::nullopt;
  }
  return user;
}

std::optional<std::string> QVLocalPaths::darwinCacheDirectory() const {
  // Linux's per-user cache folder is the XDG one.
  auto home = userDirectory();
  return home ? std::optional(join(*home, ".cache")) : std::nullopt;
}

std::string QVLocalPaths::tempDirectory() const {
  return machine_.tempDirectory;
}

std::string QVLocalPaths::tempFile() const {
  return join(tempDirectory(), uuid() + randomString(8));
}

std::string QVLocalPaths::uuid() {
  static thread_local std::mt19937_64 generator{std::random_device{}()};
  std::uniform_int_distribution<std::uint64_t> draw;
  std::uint64_t high = draw(generator);
  std::uint64_t low = draw(generator);
  high = (high & 0xffffffffffff0fffULL) | 0x0000000000004000ULL; // version 4
  low = (low & 0x3fffffffffffffffULL) | 0x8000000000000000ULL;   // RFC 4122 variant
  return fmt::format("{:08X}-{:04X}-{:04X}-{:04X}-{:012X}", high >> 32, (high >> 16) & 0xffff,
                     high & 0xffff, low >> 48, low & 0xffffffffffffULL);
}

std::string QVLocalPaths::randomString(unsigned length) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  // Reseeded on every call, before the length is looked at: two calls in one clock tick may
  // draw the same string, which callers accept.
  std::srand(static_cast<unsigned>(std::clock() * std::time(nullptr)));
  std::string result;
  result.reserve(length);
  for (unsigned i = 0; i < length; ++i) {
    result.push_back(kAlphabet[std::rand() % 36]);
  }
  return result;
}

bool QVLocalPaths::isPathSystemDirectory(const std::string& original, bool exactMatch) const {
  if (original == "/") {
    return true;
  }
  if (original.size() < 3) {
    return false;
  }
  std::string path = original;
  if (path.back() == '/') {
    // Two characters go, the slash and the one before it: "/Library/" compares as "/Librar"
    // and matches nothing below. Deliberate, and callers rely on it.
    path.resize(path.size() - 2);
  }

  std::vector<std::optional<std::string>> protectedPaths;
  for (bool user : {true, false}) {
    protectedPaths.push_back(applicationDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(adminApplicationDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(documentDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(libraryDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(prefsDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(cacheDirectory(user));
  }
  for (bool user : {true, false}) {
    protectedPaths.push_back(appSupportDirectory(user));
  }
  protectedPaths.push_back(desktopDirectory());
  protectedPaths.push_back(userDirectory());
  protectedPaths.push_back(systemLibraryDirectory());
  protectedPaths.push_back(localDocumentationDirectory());
  // The shared and mount folders; /home and /media are their Linux counterparts.
  for (const char* shared : {"Users/Shared", "Volumes", "home", "media"}) {
    protectedPaths.push_back(join(machine_.localRoot, shared));
  }
  for (const auto& candidate : protectedPaths) {
    if (candidate && *candidate == path) {
      return true;
    }
  }
  if (exactMatch) {
    return false;
  }
  // Plain string prefixes: /usrlocal and /Systems count as protected too.
  for (std::string_view prefix : {"/usr", "/var", "/private/var", "/System"}) {
    if (startsWith(path, prefix)) {
      return true;
    }
  }
  return machine_.localRoot != "/" && startsWith(path, join(machine_.localRoot, "System"));
}

bool QVLocalPaths::isPathOnTimeMachineVolume(const std::string& path) {
  if (!startsWith(path, "/Volumes/")) {
    return false;
  }
  for (const auto& component : fs::path(path)) {
    if (component == "Backups.backupdb") {
      return true;
    }
  }
  return false;
}

} // namespace kestrin
