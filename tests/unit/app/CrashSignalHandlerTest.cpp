#include "app/CrashSignalHandler.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/RecentLogLines.h"
#include "platform/AlternateSignalStack.h"

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer takes SIGSEGV, SIGBUS and SIGFPE for its own reports; here the agent's
// handler is what is tested, so the sanitizer leaves them alone.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
}
#endif

// The handler as the agent installs it, in a child process that really dies (a death test):
// the report is written and the child still dies by its signal, as the service manager must
// see it.

namespace kestrin {

// A frame per call, never tail-called away, and no end that any stack reaches. Outside the
// anonymous namespace: an exported symbol is one the report can name.
extern volatile int gDepthLimit;
volatile int gDepthLimit = 1 << 30;
int recurseForCrashTest(int depth);
int recurseForCrashTest(int depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (depth == gDepthLimit) {
    return 0;
  }
  return recurseForCrashTest(depth + 1) + frame[0];
}

namespace {

namespace fs = std::filesystem;

std::string onlyReport(const fs::path& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    found.push_back(entry.path());
  }
  return found.size() == 1 ? testing::readText(found[0])
                           : std::to_string(found.size()) + " reports";
}

class CrashSignalHandlerTest : public ::testing::TestWithParam<int> {
protected:
  void install() {
    CrashReportWriter::Facts facts{folder().string(), "Kestrin", "com.quorvane.Kestrin",
                                   "1.0.0 (100)",     "studio",  "/proc/self/exe"};
    CrashSignalHandler::install(facts);
    RecentLogLines::shared().add("the last thing before the crash");
  }
  fs::path folder() const { return dir.path() / "CrashReporter"; }

  testing::TempDir dir;
};

// Each signal as it comes for real where that can be done portably, else as abort or kill
// send it.
[[noreturn]] void crashWith(int signal) {
  switch (signal) {
  case SIGSEGV: {
    // Not null itself: the undefined-behaviour sanitizer would stop a null store first.
    volatile std::uintptr_t address = 16; // hidden from the compiler's bounds checks
    *reinterpret_cast<volatile int*>(address) = 1;
    break;
  }
  case SIGILL:
    __builtin_trap();
  case SIGABRT:
    std::abort();
  default:
    std::raise(signal);
  }
  std::_Exit(0);
}

TEST_P(CrashSignalHandlerTest, WritesTheReportAndStillDiesByTheSignal) {
  GTEST_FLAG_SET(death_test_style, "fast");
  int signal = GetParam();
  EXPECT_EXIT(
      {
        install();
        crashWith(signal);
      },
      ::testing::KilledBySignal(signal), "");
  std::string report = onlyReport(folder());
  EXPECT_THAT(report, ::testing::HasSubstr(std::string("Exception Type:  SIG") +
                                           sigabbrev_np(signal) + " ("));
  EXPECT_THAT(report, ::testing::HasSubstr(" - the last thing before the crash\n"));
}

INSTANTIATE_TEST_SUITE_P(EveryCrashSignal, CrashSignalHandlerTest,
                         ::testing::ValuesIn(CrashSignalHandler::kSignals),
                         [](const auto& info) { return std::string(sigabbrev_np(info.param)); });

TEST_F(CrashSignalHandlerTest, AStackOverflowIsReportedFromTheAlternateStack) {
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(
      {
        install();
        std::thread([] {
          platform::AlternateSignalStack stack;
          std::_Exit(recurseForCrashTest(0));
        }).join();
      },
      ::testing::KilledBySignal(SIGSEGV), "");
  std::string report = onlyReport(folder());
  EXPECT_THAT(report, ::testing::HasSubstr("Exception Type:  SIGSEGV (Segmentation fault)\n"));
  EXPECT_THAT(report, ::testing::HasSubstr("recurseForCrashTest"));
}

} // namespace
} // namespace kestrin
