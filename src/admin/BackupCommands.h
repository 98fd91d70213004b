#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kestrin::admin {

class CommandLine;

// A preference backup moved between workstations from a shell, through the agents' own
// operations: feldaneBackupData: on the machine that has it, feldaneRestoreRemoteBackup: on the
// one that receives it. One line of progress per step goes to `progress`; failures go to
// standard error. Failures are thrown as CommandFailure.

// ambrant backup HOST:PORT PATH FILE: the backup folder PATH of that agent, zipped, saved as FILE.
int backupCommand(CommandLine& command, std::ostream& progress);
// ambrant restore HOST:PORT FILE: the zipped backup FILE sent to that agent, which unpacks and
// restores it.
int restoreCommand(CommandLine& command, std::ostream& progress);

} // namespace kestrin::admin
