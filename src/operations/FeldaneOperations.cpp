#include "operations/FeldaneOperations.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "foundation/QVLocalPaths.h"
#include "foundation/QVLog.h"
#include "operations/ErrorChannel.h"
#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"

namespace kestrin::operations {

namespace {

using namespace std::chrono_literals;

constexpr MakerTool::TimeLimit kListingLimit{20.0};
constexpr MakerTool::TimeLimit kBackupLimit{30.0};
constexpr MakerTool::TimeLimit kSelectionLimit{15.0};
constexpr MakerTool::TimeLimit kLockLimit{10.0};
constexpr MakerTool::TimeLimit kDittoLimit{30.0};

constexpr const char* kBackupExtension = ".pmb2";

// A folder of its own, not a link to one, named as backups are.
bool isBackupFolder(const std::string& path) {
  struct stat status {};
  return path.size() > std::string_view(kBackupExtension).size() &&
         path.ends_with(kBackupExtension) && ::lstat(path.c_str(), &status) == 0 &&
         S_ISDIR(status.st_mode);
}

std::string orNull(const std::optional<std::string>& text) {
  return text.value_or("(null)");
}

} // namespace

// One call's hold on an archive path, released when the call is done with the archive.
class FeldaneOperations::ArchiveClaim {
public:
  ArchiveClaim(FeldaneOperations& owner, std::string path) : owner_(owner), path_(std::move(path)) {
    std::unique_lock lock(owner_.archivesMutex_);
    owner_.archivesChanged_.wait(lock, [&] { return !owner_.archivesInUse_.contains(path_); });
    owner_.archivesInUse_.insert(path_);
  }
  ~ArchiveClaim() {
    {
      std::lock_guard lock(owner_.archivesMutex_);
      owner_.archivesInUse_.erase(path_);
    }
    owner_.archivesChanged_.notify_all();
  }
  ArchiveClaim(const ArchiveClaim&) = delete;
  ArchiveClaim& operator=(const ArchiveClaim&) = delete;

private:
  FeldaneOperations& owner_;
  std::string path_;
};

FeldaneOperations::FeldaneOperations(const Services& services)
    : channel_(services.errorChannel),
      paths_(services.paths), files_{services.paths, services.tools, services.timer.clock()},
      feldane_(services, "Feldane", "com.quorvane.Feldane") {}

void FeldaneOperations::registerIn(OperationTable& table) {
  using F = FeldaneOperations;
  table.add("feldaneBackups", *this, &F::feldaneBackups);
  table.add("feldaneBackup:type:", *this, &F::backup);
  table.add("feldaneBackupSelected:", *this, &F::backupSelected);
  table.add("feldaneRestoreLocalBackup:", *this, &F::restoreLocalBackup);
  table.add("feldaneTrashSelected:", *this, &F::trashSelected);
  table.add("feldaneLockSelected:", *this, &F::lockSelected);
  table.add("feldaneUnlockSelected:", *this, &F::unlockSelected);
  table.add("feldaneBackupData:", *this, &F::backupData);
  table.add("feldaneRestoreRemoteBackup:", *this, &F::restoreRemoteBackup);
}

void FeldaneOperations::run(const MakerTool::Arguments& arguments, MakerTool::TimeLimit limit) {
  auto executable = feldane_.find(true);
  if (!executable) {
    return;
  }
  QVLog::appendLog("Launching task...");
  feldane_.exitStatus(*executable, arguments, limit);
}

void FeldaneOperations::runWithKeys(MakerTool::Arguments switches,
                                    const std::optional<std::string>& keys,
                                    MakerTool::TimeLimit limit) {
  if (!keys) {
    QVLog::appendLog("Unable to determine key list");
    return;
  }
  switches.push_back(*keys);
  run(switches, limit);
}

std::optional<plist::Dictionary> FeldaneOperations::feldaneBackups() {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Listing Feldane backups...");
  auto executable = feldane_.find(true);
  if (!executable) {
    return std::nullopt;
  }
  QVLog::appendLog("Launching task...");
  auto output = feldane_.output(*executable, {"-list"}, kListingLimit);
  if (!output || output->empty()) {
    QVLog::appendLog("No data from Feldane task");
    return std::nullopt;
  }
  auto backups = MakerTool::dictionaryFromOutput(*output);
  if (!backups) {
    QVLog::appendLog("Could not convert output of Feldane task to dictionary. {}",
                     backups.message());
    return std::nullopt;
  }
  return std::move(*backups);
}

void FeldaneOperations::backup(std::string name, std::optional<std::int64_t> type) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Backing up preferences to {} with type {}", name,
                   static_cast<int>(type.value_or(0)));
  run({"-backup", name}, kBackupLimit);
}

void FeldaneOperations::backupSelected(plist::Dictionary selection) {
  channel_.setProcessingCancelled(false);
  constexpr const char* kSelector = "feldaneBackupSelected:";
  auto name = settingsArgument<std::optional<std::string>>(selection, "backupName", kSelector);
  auto keys = settingsArgument<std::optional<std::string>>(selection, "keys", kSelector);
  QVLog::appendLog("Backing up selected preferences: {}", plist::describe(selection));
  MakerTool::Arguments arguments{"-backup"};
  if (name) {
    arguments.push_back(*name);
    if (keys) {
      arguments.push_back(*keys);
    }
  }
  run(arguments, kSelectionLimit);
}

void FeldaneOperations::restoreLocalBackup(std::string path) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Restoring local backup {}...", path);
  run({"-restore", path}, kSelectionLimit);
}

void FeldaneOperations::trashSelected(std::optional<std::string> keys) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Trashing selected preferences: {}", orNull(keys));
  runWithKeys({"-trash", "-allfiles"}, keys, kSelectionLimit);
}

void FeldaneOperations::lockSelected(std::optional<std::string> keys) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Locking selected preferences: {}", orNull(keys));
  runWithKeys({"-lock"}, keys, kLockLimit);
}

void FeldaneOperations::unlockSelected(std::optional<std::string> keys) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Unlocking selected preferences: {}...", orNull(keys));
  runWithKeys({"-unlock"}, keys, kLockLimit);
}

std::optional<plist::Data> FeldaneOperations::backupData(std::optional<std::string> path) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Getting data from Feldane backup: {}", orNull(path));
  if (!path) {
    QVLog::appendLog("Unable to determine backup path");
    return std::nullopt;
  }
  if (!QVFileManager::fileExistsAtPath(*path)) {
    QVLog::appendLog("Unable to locate file {}", *path);
    return std::nullopt;
  }
  if (!isBackupFolder(*path)) {
    QVLog::appendLog("{} is not a Feldane backup", *path);
    return std::nullopt;
  }
  std::string archive = *path + ".zip";
  ArchiveClaim claim(*this, archive);
  QVLog::appendLog("Compressing file...");
  // Without the parent folder: the entries are the backup's contents, which unpack into a
  // backup folder of any name.
  if (!QVFileManager::compressFile(*path, archive, false, nullptr, files_, kDittoLimit)) {
    QVLog::appendLog("Unable to compress backup {}", *path);
    return std::nullopt;
  }
  QVLog::appendLog("Loading data...");
  auto bytes = platform::readFileBytes(archive, kArchiveLimit);
  if (!bytes) {
    QVLog::appendLog("Unable to load data from file {}", archive);
    return std::nullopt;
  }
  QVLog::appendLog("Removing compressed file...");
  QVFileManager::removeFile(archive, false);
  return std::move(*bytes);
}

void FeldaneOperations::restoreRemoteBackup(std::optional<plist::Data> archive) {
  channel_.setProcessingCancelled(false);
  QVLog::appendLog("Restoring Feldane remote backup...");
  if (!archive) {
    QVLog::appendLog("Error: no backup data found");
    return;
  }
  std::string base = fmt::format("{}/{}", paths_.tempDirectory(), QVLocalPaths::uuid());
  std::string zip = base + ".zip";
  QVLog::appendLog("Creating compressed file {}...", zip);
  auto written = platform::writeFileAtomically(zip, *archive, 0600);
  if (!written || !QVFileManager::fileExistsAtPath(zip)) {
    QVLog::appendLog("Unable to write backup data to disk");
    return;
  }
  std::string destination = base + kBackupExtension;
  QVLog::appendLog("Decompressing to {}...", destination);
  bool unpacked = QVFileManager::decompressFile(zip, destination, files_, kDittoLimit);
  // An archive without entries unpacks to an empty folder, which holds no backup to restore.
  if (unpacked && !QVFileManager::isFolderEmpty(destination)) {
    restoreLocalBackup(destination);
    return;
  }
  QVLog::appendLog("Unable to decompress backup");
  if (unpacked) {
    QVFileManager::removeFile(destination, false);
  }
  QVFileManager::removeFile(zip, false);
}

} // namespace kestrin::operations
