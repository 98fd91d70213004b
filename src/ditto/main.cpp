// ditto: writes and extracts the zip archives that the agent's operations send and receive.
// Shipped in the bundle beside the agent, which runs it through its tool table with each
// operation's time limit: an archive from the network is opened here, in a process of its own,
// so a hostile one can cost this process and never the agent. Commands and limits are described
// in ditto/Command.h; refusals and failures print one "ditto: ..." line on standard error and
// exit 1, a malformed command prints the usage and exits 64 (EX_USAGE). SIGTERM (how a time
// limit ends a run), SIGINT and SIGHUP stop the run cleanly: work in progress is removed, then
// the signal ends the process as it would have.

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <string_view>
#include <vector>

#include "ditto/ArchiveExtractor.h"
#include "ditto/ArchiveWriter.h"
#include "ditto/Command.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 64;
constexpr int kStopSignals[] = {SIGTERM, SIGINT, SIGHUP};

std::atomic<bool> gStop{false};
std::atomic<int> gStopSignal{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "set from a signal handler");

void requestStop(int signal) {
  gStopSignal.store(signal);
  gStop.store(true);
}

void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = requestStop;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int signal : kStopSignals) {
    sigaction(signal, &action, nullptr);
  }
}

} // namespace

int main(int argc, char** argv) {
  using kestrin::ditto::Command;
  // Names in archives are UTF-8; in the "C" locale libarchive would mangle every other byte.
  std::setlocale(LC_ALL, "C.UTF-8");
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  auto command = kestrin::ditto::parseCommand(arguments);
  if (!command) {
    std::fputs(kestrin::ditto::kUsage.data(), stderr);
    return kExitUsage;
  }
  catchStopSignals();
  auto result = command->mode == Command::Mode::Compress
                    ? kestrin::ditto::writeZipArchive(command->source, command->destination,
                                                      command->keepParent, &gStop)
                    : kestrin::ditto::extractZipArchive(command->source, command->destination,
                                                        command->limits, &gStop);
  if (int signal = gStopSignal.load(); signal != 0) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }
  if (!result) {
    std::fprintf(stderr, "ditto: %s\n", result.message().c_str());
    return kExitFailure;
  }
  return 0;
}
