#pragma once

#include <array>
#include <csignal>

#include "foundation/CrashReportWriter.h"

namespace kestrin {

class QVLocalPaths;
namespace operations {
class AgentBundle;
}

// The agent's last words. When it dies on SIGSEGV, SIGBUS, SIGFPE, SIGILL or SIGABRT (an
// uncaught exception ends in abort too), the handler writes a crash report into the user's
// Logs/CrashReporter, where the next start's crash detection finds it, and then lets the
// signal's default action end the process: the service manager sees a death by that signal and
// restarts the agent.
//
// The handler runs on an alternate stack where the thread has one (the main thread gets one
// here; the worker pool's threads make their own), so a stack overflow is reported too. One
// report per process: a second thread that crashes meanwhile waits for the first to finish,
// and a report that cannot be finished within kWriteLimitSeconds ends the process anyway.
class CrashSignalHandler {
public:
  static constexpr std::array<int, 5> kSignals = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
  static constexpr unsigned kWriteLimitSeconds = 10;

  // Installs the handlers. The writer made from `facts` lives as long as the process; a later
  // call replaces it (the facts of a restarted service, say).
  static void install(const CrashReportWriter::Facts& facts);

  // What this agent's reports say about it: the user's crash-report folder, the bundle's
  // identifier and versions, the short host name and the executable.
  static CrashReportWriter::Facts factsFor(const QVLocalPaths& paths,
                                           const operations::AgentBundle& bundle);
};

} // namespace kestrin
