// The agent as the test of its crash reports builds it: the real entry, plus one way to crash
// on purpose that no shipped build has. When the file named by KESTRIN_TEST_CRASH_TRIGGER
// appears, a thread of its own crashes the process: "segv" writes into the unmapped first page,
// "overflow" recurses without end on a thread with an alternate signal stack.

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "app/AgentMain.h"
#include "platform/AlternateSignalStack.h"

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer takes SIGSEGV, SIGBUS and SIGFPE for its own reports; here the agent's
// handler is what is tested, so the sanitizer leaves them alone.
extern "C" const char* __asan_default_options() {
  return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0";
}
#endif

namespace {

volatile int gDepthLimit = 1 << 30;

int recurseWithoutEnd(int depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (depth == gDepthLimit) {
    return 0;
  }
  return recurseWithoutEnd(depth + 1) + frame[0];
}

void crashWhenTold(const std::string& trigger) {
  while (!std::filesystem::exists(trigger)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::string how;
  std::ifstream(trigger) >> how;
  if (how == "overflow") {
    kestrin::platform::AlternateSignalStack stack;
    std::_Exit(recurseWithoutEnd(0));
  }
  // Not null itself: the undefined-behaviour sanitizer would stop a null store first.
  volatile std::uintptr_t address = 16; // hidden from the compiler's bounds checks
  *reinterpret_cast<volatile int*>(address) = 1;
}

} // namespace

int main(int argc, char** argv) {
  if (const char* trigger = std::getenv("KESTRIN_TEST_CRASH_TRIGGER")) {
    // The agent's stop signals belong to its main loop, which takes them before any thread of
    // its own exists: this thread must not be the one they reach.
    sigset_t stop;
    sigset_t previous;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, &previous);
    std::thread(crashWhenTold, std::string(trigger)).detach();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }
  return kestrin::agentMain(std::vector<std::string>(argv, argv + argc));
}
