#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "foundation/QVFileManager.h"
#include "operations/MakerTool.h"
#include "operations/OperationTable.h"
#include "operations/Services.h"
#include "plist/Value.h"

namespace kestrin::operations {

// Preference backups through the maker's preference tool, Feldane: list, make, restore, trash,
// lock and unlock them, and move one between machines as a zip archive made and unpacked by the
// bundle's ditto. Failures are logged only; no operation here posts an error.
//
// A backup that leaves the machine must be a backup: a folder of its own (not a link) named
// "*.pmb2", the form every backup has, so that no caller can have an arbitrary folder zipped and
// sent. A received backup is unpacked to "<uuid>.pmb2" in the temporary folder and restored
// from there; both the archive and the unpacked backup stay there afterwards.
class FeldaneOperations {
public:
  explicit FeldaneOperations(const Services& services);
  void registerIn(OperationTable& table);

  std::optional<plist::Dictionary> feldaneBackups();
  // The type is only logged: Feldane decides what a backup holds.
  void backup(std::string name, std::optional<std::int64_t> type);
  // {"backupName", "keys"}; whatever is missing ends the arguments there.
  void backupSelected(plist::Dictionary selection);
  void restoreLocalBackup(std::string path);
  // A key list is Feldane's own text, handed on as one argument.
  void trashSelected(std::optional<std::string> keys);
  void lockSelected(std::optional<std::string> keys);
  void unlockSelected(std::optional<std::string> keys);
  // The backup zipped, or null. The archive is made beside the backup ("<backup>.zip") and
  // removed once read; an archive that cannot be read back stays.
  std::optional<plist::Data> backupData(std::optional<std::string> path);
  void restoreRemoteBackup(std::optional<plist::Data> archive);

  // The largest archive sent or received: what one remote answer can carry.
  static constexpr std::size_t kArchiveLimit = std::size_t{60} << 20;

private:
  class ArchiveClaim;

  // Finds Feldane and runs it as every operation but the listing does; the exit status is not
  // looked at.
  void run(const MakerTool::Arguments& arguments, MakerTool::TimeLimit limit);
  void runWithKeys(MakerTool::Arguments switches, const std::optional<std::string>& keys,
                   MakerTool::TimeLimit limit);

  ErrorChannel& channel_;
  const QVLocalPaths& paths_;
  QVFileManager::Environment files_;
  MakerTool feldane_;

  // Archive paths that a call is making or reading: a second call for the same backup waits
  // rather than replace the first one's archive under it.
  std::mutex archivesMutex_;
  std::condition_variable archivesChanged_;
  std::set<std::string> archivesInUse_;
};

} // namespace kestrin::operations
