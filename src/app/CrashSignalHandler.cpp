#include "app/CrashSignalHandler.h"

#include <atomic>
#include <cerrno>
#include <filesystem>

#include <sys/syscall.h>
#include <unistd.h>

#include "foundation/QVLocalPaths.h"
#include "foundation/RecentLogLines.h"
#include "operations/AgentBundle.h"
#include "platform/AlternateSignalStack.h"

namespace kestrin {

namespace {

std::atomic<const CrashReportWriter*> gWriter{nullptr};
// The thread writing the report, 0 before any crash.
std::atomic<long> gCrashingThread{0};

void endWithDefaultAction(int signal) {
  struct sigaction fallback {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  ::sigaction(signal, &fallback, nullptr);
  // The signal is blocked while its handler runs: it is delivered, with the default action, the
  // moment the handler returns. A fault would also simply recur, but a signal that abort() or
  // kill sent would not.
  ::raise(signal);
}

void onCrash(int signal, siginfo_t* info, void* context) {
  int savedErrno = errno;
  long self = ::syscall(SYS_gettid);
  long expected = 0;
  if (!gCrashingThread.compare_exchange_strong(expected, self)) {
    if (expected == self) {
      // The report itself crashed: give up on it.
      endWithDefaultAction(signal);
      errno = savedErrno;
      return;
    }
    // Another thread is writing the report and will end the process.
    for (;;) {
      ::pause();
    }
  }
  // A report that hangs (the unwinder on a corrupt stack) must not keep a dead agent from
  // being restarted: SIGALRM's default action ends it.
  ::alarm(CrashSignalHandler::kWriteLimitSeconds);
  if (const CrashReportWriter* writer = gWriter.load()) {
    writer->write(signal, info, context, RecentLogLines::shared());
  }
  endWithDefaultAction(signal);
  errno = savedErrno;
}

std::string shortHostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) {
    return "localhost";
  }
  std::string host(name);
  return host.substr(0, host.find('.'));
}

} // namespace

void CrashSignalHandler::install(const CrashReportWriter::Facts& facts) {
  // Deliberately never freed: a crash at any moment after this may use it.
  gWriter.store(new CrashReportWriter(facts));
  // The main thread's, for the life of the process.
  static platform::AlternateSignalStack* mainStack = new platform::AlternateSignalStack;
  (void)mainStack;

  struct sigaction action {};
  action.sa_sigaction = onCrash;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  // While one report is written, the other crash signals wait.
  for (int signal : kSignals) {
    sigaddset(&action.sa_mask, signal);
  }
  for (int signal : kSignals) {
    ::sigaction(signal, &action, nullptr);
  }
}

CrashReportWriter::Facts CrashSignalHandler::factsFor(const QVLocalPaths& paths,
                                                      const operations::AgentBundle& bundle) {
  CrashReportWriter::Facts facts;
  facts.folder =
      paths.logDirectory(true).value_or(paths.machine().home + "/Library/Logs") + "/CrashReporter";
  facts.applicationName = operations::AgentBundle::kApplicationName;
  facts.identifier = operations::AgentBundle::kBundleIdentifier;
  facts.version = bundle.clientVersionString() + " (" + bundle.clientVersion() + ")";
  facts.hostName = shortHostName();
  std::error_code error;
  facts.executablePath = std::filesystem::read_symlink("/proc/self/exe", error).string();
  return facts;
}

} // namespace kestrin
