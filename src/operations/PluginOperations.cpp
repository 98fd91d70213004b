// The plug-ins of this machine for the administration application: inventory, transfer,
// installation, replacement, and Vantry's enabling, disabling and moving between domains.

#include "operations/PluginOperations.h"

#include <climits>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "foundation/BundleInfoFile.h"
#include "foundation/FileTree.h"
#include "foundation/PluginArchive.h"
#include "foundation/PluginInventory.h"
#include "foundation/QVAuthorization.h"
#include "foundation/QVEncryption.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "foundation/QVTaskEx.h"
#include "foundation/Timer.h"
#include "operations/ApplicationCatalog.h"
#include "operations/ErrorChannel.h"
#include "operations/MakerApplications.h"
#include "operations/PathComponents.h"
#include "operations/PluginTree.h"
#include "platform/AtomicFile.h"
#include "platform/ToolTable.h"
#include "plist/PropertyList.h"

namespace kestrin::operations {

namespace {

using namespace std::chrono_literals;
using plist::Value;

constexpr const char* kVantryIdentifier = "com.quorvane.Vantry";
constexpr QVTaskEx::TimeLimit kCompressLimit{20.0};
constexpr QVTaskEx::TimeLimit kDecompressLimit{30.0};
constexpr QVTaskEx::TimeLimit kVantryLimit{20.0};
// What the rights-holding helper is given to make a trash or a move take effect.
constexpr auto kAuthSettle = 1s;

// Callers' texts in the log are cut at the longest path the system takes: one hostile call
// must not be able to push the log's earlier files out of its rotation.
constexpr std::size_t kShownLimit = PATH_MAX;
std::string shown(std::string_view text) {
  return text.size() <= kShownLimit ? std::string(text)
                                    : std::string(text.substr(0, kShownLimit)) + "...";
}

std::string described(const Value& value) {
  return shown(plist::describe(value));
}

std::optional<std::string> stringIn(const std::optional<plist::Dictionary>& dictionary,
                                    std::string_view key) {
  return dictionary ? stringMember(*dictionary, key) : std::nullopt;
}

const Value* memberOf(const std::optional<plist::Dictionary>& dictionary, std::string_view key) {
  return dictionary ? dictionary->find(key) : nullptr;
}

// Present, whatever the kind: lstat, so a link counts as what it is.
bool existsHere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// The last component as the platform names it ("/" for "/", "" for "").
std::string lastComponent(const std::string& path) {
  std::string trimmed = path;
  while (trimmed.size() > 1 && trimmed.back() == '/') {
    trimmed.pop_back();
  }
  std::size_t slash = trimmed.rfind('/');
  return slash == std::string::npos || trimmed == "/" ? trimmed : trimmed.substr(slash + 1);
}

std::string parentOf(const std::string& path) {
  return FileTree::split(path).first;
}

std::size_t componentCount(const std::string& path) {
  std::size_t count = path.starts_with("/") ? 1 : 0;
  for (std::size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/' && (i == 0 || path[i - 1] == '/')) {
      ++count;
    }
  }
  return count;
}

// Path components as the platform splits them: a leading "/" is one.
std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> components;
  if (path.starts_with("/")) {
    components.emplace_back("/");
  }
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t slash = path.find('/', start);
    std::size_t end = slash == std::string::npos ? path.size() : slash;
    if (end > start) {
      components.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return components;
}

} // namespace

PluginOperations::PluginOperations(const Services& services)
    : services_(services), folders_(services.paths),
      inventory_(std::make_unique<PluginInventory>(services.paths, services.workspace)),
      credentials_(services.credentials, services.errorChannel) {}

PluginOperations::~PluginOperations() = default;

void PluginOperations::registerIn(OperationTable& table) {
  using P = PluginOperations;
  table.add("vantryPluginList", *this, &P::vantryPluginList);
  table.add("vantryPluginTree", *this, &P::vantryPluginTree);
  table.add("vantryPluginData:", *this, &P::vantryPluginData);
  table.add("vantryInstallPlugin:withData:", *this, &P::vantryInstallPlugin);
  table.add("vantryUpdatePlugin:settings:", *this, &P::vantryUpdatePlugin);
  table.add("vantryEnablePlugin:settings:", *this, &P::vantryEnablePlugin);
  table.add("vantryChangeAccess:settings:", *this, &P::vantryChangeAccess);
  table.add("vantryNeedsAdminAccess:settings:", *this, &P::vantryNeedsAdminAccess, false);
  table.add("subdirForPluginPath:", *this, &P::subdirForPluginPath);
  table.add("accessModeForPluginPath:", *this, &P::accessModeForPluginPath, 0);
}

std::string PluginOperations::expandTilde(const std::string& path) const {
  if (path == "~" || path.starts_with("~/")) {
    return appendFolderText(services_.paths.machine().home, path.substr(1));
  }
  return path;
}

bool PluginOperations::isPluginPath(const std::string& path) const {
  for (const PluginFolders::Row& row : inventory_->folderTable()) {
    if (path.size() >= PATH_MAX) {
      break;
    }
    if (PluginFolders::isInside(path, row.folder) ||
        PluginFolders::isInside(path, folders_.disabledFolder() + row.folder)) {
      return true;
    }
  }
  QVLog::appendLog("Refusing {}: not inside a plug-in folder", shown(path));
  return false;
}

plist::Array PluginOperations::vantryPluginList() {
  QVLog::appendLog("Getting Vantry plugin list...");
  return inventory_->plugins(true);
}

Value PluginOperations::vantryPluginTree() {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Getting Vantry plugin tree...");
  auto roots = std::make_shared<const PluginRoots>(folders_.roots());
  auto tree = pluginTreeOf(inventory_->plugins(true), inventory_->folderTable(), folders_, roots);
  return PluginArchive::archive(*tree);
}

std::optional<plist::Data>
PluginOperations::vantryPluginData(std::optional<plist::Dictionary> record) {
  services_.errorChannel.setProcessingCancelled(false);
  auto fullPath = stringIn(record, "fullPath");
  QVLog::appendLog("Getting plugin data from plugin {}...", shown(fullPath.value_or("(null)")));
  if (!fullPath) {
    QVLog::appendLog("Unable to determine plugin path");
    return std::nullopt;
  }
  const std::string& path = *fullPath;
  if (!existsHere(path)) {
    QVLog::appendLog("Unable to locate file {}", shown(path));
    return std::nullopt;
  }
  if (!isPluginPath(path)) {
    return std::nullopt;
  }
  QVLog::appendLog("Compressing file...");
  // The archive is made in a private folder of the agent's, not beside the plug-in: a
  // computer-wide plug-in folder is not the user's to write in, and a file of that name there
  // is not the agent's to replace.
  std::string scratch = services_.paths.tempFile();
  if (::mkdir(scratch.c_str(), 0700) != 0) {
    QVLog::appendLog("Unable to compress plugin {}", path);
    return std::nullopt;
  }
  std::string archive = FileTree::join(scratch, lastComponent(path) + ".zip");
  const Value* package = memberOf(record, "package");
  QVTaskEx::Arguments arguments = {"-c", "-k", "--sequesterRsrc"};
  if (package && package->boolValue().value_or(false)) {
    arguments.emplace_back("--keepParent");
  }
  arguments.insert(arguments.end(), {"--", path, archive});
  QVTaskEx::terminationCodeFromTask(services_.tools.path(platform::Tool::Ditto), arguments,
                                    kCompressLimit, services_.timer);
  std::optional<plist::Data> bytes;
  if (!existsHere(archive)) {
    QVLog::appendLog("Unable to compress plugin {}", path);
  } else {
    QVLog::appendLog("Loading data...");
    auto read = readSmallFile(archive, kArchiveLimit);
    if (read) {
      bytes = std::move(*read);
    } else {
      QVLog::appendLog("Unable to load data from file {}", archive);
    }
  }
  (void)FileTree::removeItem(scratch);
  return bytes;
}

void PluginOperations::vantryInstallPlugin(std::optional<plist::Dictionary> record,
                                           std::optional<plist::Data> archiveBytes) {
  services_.errorChannel.setProcessingCancelled(false);
  QVLog::appendLog("Installing plugin {}", record ? described(Value(*record)) : "(null)");
  if (!archiveBytes || archiveBytes->empty()) {
    QVLog::appendLog("Error: no plugin data found");
    return;
  }
  const Value* typeValue = memberOf(record, "type");
  auto type = stringIn(record, "type");
  std::optional<std::string> folder = type ? folders_.typeFolder(*type, true) : std::nullopt;
  if (!folder) {
    QVLog::appendLog("Unknown plugin type {}", type        ? shown(*type)
                                               : typeValue ? described(*typeValue)
                                                           : std::string("(null)"));
    folder = folders_.typeFolder("Audio Unit", true);
  }
  auto filename = stringIn(record, "filename");
  // Only the last component is used, and it must name something: "../x" installs x, and
  // nothing is ever written outside the type's folder.
  std::string name = filename ? lastComponent(*filename) : "";
  if (name.empty() || name == "." || name == ".." || name == "/" || name.size() > NAME_MAX) {
    QVLog::appendLog("Unable to determine destination filename");
    return;
  }
  if (!QVFileManager::isDirectoryAtPath(*folder)) {
    QVLog::appendLog("Creating folder {}", *folder);
    QVFileManager::createDirectory(*folder, false);
    if (!QVFileManager::isDirectoryAtPath(*folder)) {
      QVLog::appendLog("Unable to create directory {}", *folder);
    }
  }
  std::string target = FileTree::join(*folder, name);
  std::string archive = target + ".zip";
  QVLog::appendLog("Writing data to compressed file {}...", archive);
  (void)platform::writeFileAtomically(archive, *archiveBytes, 0600);
  if (!existsHere(archive)) {
    QVLog::appendLog("Unable to write plugin data to disk");
    return;
  }
  QVLog::appendLog("Decompressing to {}...", target);
  QVTaskEx::terminationCodeFromTask(services_.tools.path(platform::Tool::Ditto),
                                    {"-x", "-k", "--", archive, *folder}, kDecompressLimit,
                                    services_.timer);
  if (!existsHere(target)) {
    QVLog::appendLog("Unable to decompress plugin");
  }
  ::unlink(archive.c_str());
}

void PluginOperations::vantryUpdatePlugin(const Caller& caller,
                                          std::optional<plist::Dictionary> authInfo,
                                          std::optional<plist::Dictionary> settings) {
  services_.errorChannel.setProcessingCancelled(false);
  const Value* recordValue = memberOf(settings, "obj1");
  const plist::Dictionary* record = recordValue ? recordValue->asDictionary() : nullptr;
  const Value* dataValue = memberOf(settings, "obj2");
  const plist::Data* bytes = dataValue ? dataValue->asData() : nullptr;
  QVLog::appendLog("Updating plugin {}",
                   recordValue ? described(*recordValue) : std::string("(null)"));
  if (bytes == nullptr || bytes->empty()) {
    QVLog::appendLog("Error: no plugin data found");
    return;
  }
  auto fullPath = record ? stringMember(*record, "fullPath") : std::nullopt;
  if (!fullPath) {
    QVLog::appendLog("Unable to determine destination filename");
    return;
  }
  const std::string path = expandTilde(*fullPath);
  if (!isPluginPath(path)) {
    return;
  }
  std::optional<QVAuthorization::Session> rights;
  if (authInfo) {
    rights.emplace(credentials_.sessionFor(caller, authInfo));
    if (!rights->isAuthorized()) {
      QVLog::appendLog("Unable to authorize. Username and password may be incorrect.");
      services_.errorChannel.postErrorWithCode(1006, std::nullopt);
    }
  }
  const platform::Clock& clock = services_.timer.clock();
  const std::string& ditto = services_.tools.path(platform::Tool::Ditto);

  std::string archive = path + ".zip";
  QVLog::appendLog("Writing data to compressed file {}...", archive);
  bool inPlace = platform::writeFileAtomically(archive, *bytes, 0600).ok();
  std::string documents = services_.paths.documentDirectory(true).value_or("");
  if (!inPlace) {
    QVLog::appendLog("Unable to write plugin data to disk. Authorizing...");
    archive = FileTree::join(documents, lastComponent(archive));
    if (documents.empty() || !platform::writeFileAtomically(archive, *bytes, 0600).ok()) {
      QVLog::appendLog("Unable to write plugin data to disk.");
      return;
    }
  }

  QVLog::appendLog("Trashing old plugin {}...", path);
  QVFileManager::Environment environment{services_.paths, services_.tools, clock};
  if (!QVFileManager::trashFile(path, false, nullptr, environment)) {
    QVLog::appendLog("Unable to trash old file {}. Authorizing...", path);
    if (rights) {
      rights->authTrashFile(path);
      clock.sleepFor(kAuthSettle);
    }
    if (existsHere(path)) {
      QVLog::appendLog("Unable to trash old file {}.", path);
      ::unlink(archive.c_str());
      return;
    }
  }

  if (inPlace || !rights) {
    QVLog::appendLog("Decompressing to {}...", path);
    QVTaskEx::terminationCodeFromTask(ditto, {"-x", "-k", "--", archive, parentOf(path)},
                                      kDecompressLimit, services_.timer);
    if (!existsHere(path)) {
      QVLog::appendLog("Unable to decompress plugin");
    }
    ::unlink(archive.c_str());
    return;
  }
  // Unpacked where the user may write, then moved into place with the caller's rights.
  std::string unpacked = FileTree::join(documents, lastComponent(path));
  QVLog::appendLog("Decompressing to {}...", unpacked);
  QVTaskEx::terminationCodeFromTask(ditto, {"-x", "-k", "--", archive, documents}, kDecompressLimit,
                                    services_.timer);
  ::unlink(archive.c_str());
  rights->authMoveFile(unpacked, path);
  clock.sleepFor(kAuthSettle);
  if (!existsHere(path)) {
    QVLog::appendLog("Unable to auth move plugin");
  }
}

void PluginOperations::runVantry(const Caller& caller, const std::vector<std::string>& arguments,
                                 const std::optional<plist::Dictionary>& authInfo) {
  auto application = services_.applications.pathForAppWithBundleID(kVantryIdentifier);
  if (!application) {
    QVLog::appendLog("Cannot find the location of the Vantry application");
    return;
  }
  QVLog::appendLog("Found application at path {} for bundle ID {}", *application,
                   kVantryIdentifier);
  QVLog::appendLog("Launching task...");
  std::string executable = executableOfBundle(*application);
  if (authInfo) {
    plist::Array values(arguments.begin(), arguments.end());
    credentials_.launchAuthTask(caller, executable, std::move(values), authInfo);
    return;
  }
  // The tool's answer is its own business: the admin side lists the plug-ins again.
  QVTaskEx::terminationCodeFromTask(executable, arguments, kVantryLimit, services_.timer);
}

void PluginOperations::vantryEnablePlugin(const Caller& caller,
                                          std::optional<plist::Dictionary> authInfo,
                                          std::optional<plist::Dictionary> settings) {
  services_.errorChannel.setProcessingCancelled(false);
  auto given = stringIn(settings, "obj1");
  std::optional<std::string> path = given ? std::optional(expandTilde(*given)) : std::nullopt;
  const Value* disable = memberOf(settings, "obj2");
  std::int64_t how = disable ? disable->integerValue().value_or(0) : 0;
  if (how != 0) {
    QVLog::appendLog("Disabling Vantry plugin {}...", shown(path.value_or("(null)")));
  } else {
    QVLog::appendLog("Enabling Vantry plugin {}...", shown(path.value_or("(null)")));
  }
  if (path && !isPluginPath(*path)) {
    return;
  }
  // Only 1 disables: any other non-zero value is logged as disabling and enables.
  std::vector<std::string> arguments = {how == 1 ? "-disable" : "-enable"};
  if (path) {
    arguments.push_back(*path);
  }
  runVantry(caller, arguments, authInfo);
}

void PluginOperations::vantryChangeAccess(const Caller& caller,
                                          std::optional<plist::Dictionary> authInfo,
                                          std::optional<plist::Dictionary> settings) {
  services_.errorChannel.setProcessingCancelled(false);
  auto given = stringIn(settings, "obj1");
  std::optional<std::string> path = given ? std::optional(expandTilde(*given)) : std::nullopt;
  const Value* access = memberOf(settings, "obj2");
  std::int64_t domain = access ? access->integerValue().value_or(0) : 0;
  QVLog::appendLog("Changing access type of Vantry plugin {} to {}...",
                   shown(path.value_or("(null)")), domain != 0 ? "Current User" : "All Users");
  if (path && !isPluginPath(*path)) {
    return;
  }
  std::vector<std::string> arguments = {"-setaccess", std::to_string(domain)};
  if (path) {
    arguments.push_back(*path);
  }
  runVantry(caller, arguments, authInfo);
}

bool PluginOperations::vantryNeedsAdminAccess(std::optional<plist::Array> records,
                                              std::optional<plist::Dictionary> destination) {
  services_.errorChannel.setProcessingCancelled(false);
  const plist::Array none;
  const plist::Array& given = records ? *records : none;
  plist::Array paths;
  for (const Value& record : given) {
    const plist::Dictionary* fields = record.asDictionary();
    if (auto path = fields ? stringMember(*fields, "fullPath") : std::nullopt) {
      paths.push_back(expandTilde(*path));
    }
  }
  if (credentials_.needsAdminAccess(paths)) {
    return true;
  }
  const Value* destDisabled = memberOf(destination, "destDisabled");
  const Value* destAccess = memberOf(destination, "destAccess");
  for (const Value& record : given) {
    const plist::Dictionary* fields = record.asDictionary();
    auto fullPath = fields ? stringMember(*fields, "fullPath") : std::nullopt;
    auto type = fields ? stringMember(*fields, "type") : std::nullopt;
    if (!fullPath || !type) {
      continue;
    }
    std::string path = expandTilde(*fullPath);
    std::int64_t domain = destAccess && destAccess->integerValue() ? *destAccess->integerValue()
                                                                   : accessModeForPluginPath(path);
    auto folder = folders_.typeFolder(*type, domain != 0);
    if (!folder) {
      continue;
    }
    const Value* recordDisabled = fields->find("disabled");
    bool disabled = destDisabled ? destDisabled->boolValue().value_or(false)
                                 : recordDisabled && recordDisabled->boolValue().value_or(false);
    std::string target = disabled ? folders_.disabledFolder() + *folder : *folder;
    if (auto subdir = subdirForPluginPath(path)) {
      target = appendFolderText(target, *subdir);
    }
    while (!existsHere(target)) {
      std::string parent = parentOf(target);
      if (componentCount(parent) < 2 || parent == target) {
        target.clear();
        break;
      }
      target = parent;
    }
    if (!target.empty() && credentials_.needsAdminAccess(plist::Array{target})) {
      return true;
    }
  }
  return false;
}

std::optional<std::string> PluginOperations::subdirForPluginPath(std::optional<std::string> given) {
  if (!given) {
    return std::nullopt;
  }
  std::string path = *given;
  const std::string& disabled = folders_.disabledFolder();
  if (path.starts_with(disabled) && path.size() > disabled.size() + 1) {
    path.erase(0, disabled.size());
  }
  if (!path.starts_with("/")) {
    path = "/" + path; // not insert(0, ...): g++ 12 warns wrongly of overlapping copies there
  } else if (path.starts_with("//")) {
    path.erase(0, 1);
  }
  const std::string* base = nullptr;
  for (const std::string& folder : folders_.typeBaseFolders()) {
    if (path.starts_with(folder + "/")) {
      base = &folder;
      break;
    }
  }
  // A path in no type folder has no sub-folder of one.
  if (base == nullptr) {
    return std::nullopt;
  }
  std::vector<std::string> components = componentsOf(path);
  components.pop_back();
  std::string joined;
  for (const std::string& component : stripComponents(componentsOf(*base), components)) {
    joined += (joined.empty() ? "" : "/") + component;
  }
  if (joined.empty() || joined == "/") {
    return std::nullopt;
  }
  return joined;
}

std::int64_t PluginOperations::accessModeForPluginPath(std::optional<std::string> path) {
  return path && path->starts_with(folders_.userLibrary()) ? 1 : 0;
}

} // namespace kestrin::operations
