#include "admin/BackupCommands.h"

#include <iostream>

#include "admin/AdminClient.h"
#include "platform/AtomicFile.h"
#include "platform/FileBytes.h"
#include "support/NamedException.h"
#include "transport/ValueCodec.h"

namespace kestrin::admin {

namespace {

using namespace std::chrono_literals;

constexpr int kOk = 0;
constexpr int kAgentError = 1;
constexpr int kUnreachable = 2;

constexpr const char* kBackupUsage = "usage: ambrant backup HOST:PORT PATH FILE\n";
constexpr const char* kRestoreUsage = "usage: ambrant restore HOST:PORT FILE\n";

// The connected agent, or the status to end with (the reason already printed).
Expected<std::unique_ptr<AdminClient>> connectTo(const std::string& where, std::ostream& progress) {
  auto address = parseAgentAddress(where);
  if (!address) {
    return address.failure();
  }
  progress << "Connecting to " << where << "..." << std::endl;
  return AdminClient::connect(*address, 10s, nullptr);
}

// Calls the operation; a failed call prints its reason and answers the status to end with.
Expected<plist::Value> callAgent(AdminClient& client, const std::string& selector,
                                 std::vector<plist::Value> arguments, int& status) {
  try {
    return client.call(selector, std::move(arguments));
  } catch (const NamedException& e) {
    status = e.name() == kInvalidSendPortException ? kUnreachable : kAgentError;
    return Failure{e.name() + ": " + e.what()};
  }
}

} // namespace

int backupCommand(const std::vector<std::string>& arguments, std::ostream& progress) {
  if (arguments.size() != 3) {
    std::cerr << kBackupUsage;
    return kUnreachable;
  }
  const std::string& where = arguments[0];
  const std::string& path = arguments[1];
  const std::string& file = arguments[2];
  auto client = connectTo(where, progress);
  if (!client) {
    std::cerr << "ambrant: " << client.message() << std::endl;
    return kUnreachable;
  }
  progress << "Asking for the backup " << path << "..." << std::endl;
  int status = kOk;
  auto answer = callAgent(**client, "feldaneBackupData:", {plist::Value(path)}, status);
  if (!answer) {
    std::cerr << "ambrant: " << answer.message() << std::endl;
    return status;
  }
  const plist::Data* archive = answer->asData();
  if (archive == nullptr) {
    std::cerr << "ambrant: the agent sent no backup for " << path
              << ": it could not find or compress it (its log says which)" << std::endl;
    return kAgentError;
  }
  progress << "Received " << archive->size() << " bytes." << std::endl;
  progress << "Saving " << file << "..." << std::endl;
  auto saved = platform::writeFileAtomically(file, *archive, 0600);
  if (!saved) {
    std::cerr << "ambrant: " << saved.message() << std::endl;
    return kAgentError;
  }
  progress << "Saved the backup of " << path << " as " << file << "." << std::endl;
  return kOk;
}

int restoreCommand(const std::vector<std::string>& arguments, std::ostream& progress) {
  if (arguments.size() != 2) {
    std::cerr << kRestoreUsage;
    return kUnreachable;
  }
  const std::string& where = arguments[0];
  const std::string& file = arguments[1];
  progress << "Reading " << file << "..." << std::endl;
  auto archive = platform::readFileBytes(file, transport::kMaxMessageBytes);
  if (!archive) {
    std::cerr << "ambrant: " << archive.message() << std::endl;
    return kUnreachable;
  }
  auto client = connectTo(where, progress);
  if (!client) {
    std::cerr << "ambrant: " << client.message() << std::endl;
    return kUnreachable;
  }
  progress << "Sending " << archive->size() << " bytes..." << std::endl;
  int status = kOk;
  std::vector<plist::Value> values{plist::Value(std::move(*archive))};
  auto answer = callAgent(**client, "feldaneRestoreRemoteBackup:", std::move(values), status);
  if (!answer) {
    std::cerr << "ambrant: " << answer.message() << std::endl;
    return status;
  }
  progress << "Done: the agent has unpacked the backup and run the restore (its log tells how "
              "that went)."
           << std::endl;
  return kOk;
}

} // namespace kestrin::admin
