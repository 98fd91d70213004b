#include "admin/BackupCommands.h"

#include <iostream>

#include "admin/AdminClient.h"
#include "admin/CommandLine.h"
#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"
#include "transport/ValueCodec.h"

namespace kestrin::admin {

namespace {

// The connected agent; the progress line says where, since connecting may take the time limit.
std::unique_ptr<AdminClient> connectTo(CommandLine& command, const std::string& where,
                                       std::ostream& progress) {
  progress << "Connecting to " << where << "..." << std::endl;
  return command.connect(where);
}

} // namespace

int backupCommand(CommandLine& command, std::ostream& progress) {
  auto operands = command.operands({"HOST:PORT", "PATH", "FILE"});
  const std::string& path = operands[1];
  const std::string& file = operands[2];
  auto client = connectTo(command, operands[0], progress);
  progress << "Asking for the backup " << path << "..." << std::endl;
  plist::Value answer = callAgent(*client, "feldaneBackupData:", {plist::Value(path)});
  const plist::Data* archive = answer.asData();
  if (archive == nullptr) {
    throw CommandFailure(kExitAgentError, "the agent sent no backup for " + path +
                                              ": it could not find or compress it (its log "
                                              "says which)");
  }
  progress << "Received " << archive->size() << " bytes." << std::endl;
  progress << "Saving " << file << "..." << std::endl;
  if (auto saved = platform::writeFileAtomically(file, *archive, 0600); !saved) {
    throw CommandFailure(kExitAgentError, saved.message());
  }
  progress << "Saved the backup of " << path << " as " << file << "." << std::endl;
  return kExitOk;
}

int restoreCommand(CommandLine& command, std::ostream& progress) {
  auto operands = command.operands({"HOST:PORT", "FILE"});
  const std::string& file = operands[1];
  progress << "Reading " << file << "..." << std::endl;
  auto archive = platform::readFileBytes(file, transport::kMaxMessageBytes);
  if (!archive) {
    throw CommandFailure(kExitUsage, archive.message());
  }
  auto client = connectTo(command, operands[0], progress);
  progress << "Sending " << archive->size() << " bytes..." << std::endl;
  callAgent(*client, "feldaneRestoreRemoteBackup:", {plist::Value(std::move(*archive))});
  progress << "Done: the agent has unpacked the backup and run the restore (its log tells how "
              "that went)."
           << std::endl;
  return kExitOk;
}

} // namespace kestrin::admin
