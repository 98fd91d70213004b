// kestrin-maintenance: the user at this workstation asks the administrators for maintenance, or
// withdraws the request, from a shell; the status item's menu would have done it, but the agent
// has none. The running agent hears the request on the session bus, tells every administration
// application that listens, and confirms.
//
//   kestrin-maintenance request | cancel
//
// Exit status: 0 when the agent confirmed, 1 when no agent answered, 2 on a usage error or
// without a session bus.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include "platform/NotificationCenter.h"

namespace {

using namespace std::chrono_literals;
using kestrin::platform::NotificationCenter;

// The agent answers at once; the limit only covers a busy machine.
constexpr auto kAnswerLimit = 5s;

int usage() {
  std::fputs("usage: kestrin-maintenance request | cancel\n", stderr);
  return 2;
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    return usage();
  }
  const std::string verb = argv[1];
  if (verb != "request" && verb != "cancel") {
    return usage();
  }
  auto center = NotificationCenter::connectSessionBus();
  if (!center) {
    std::fprintf(stderr, "kestrin-maintenance: %s\n", center.message().c_str());
    return 2;
  }

  std::mutex mutex;
  std::condition_variable answered;
  std::optional<bool> requested;
  // Observing before posting, so the answer cannot slip past.
  auto observation =
      (*center)->observe("QVKestrinMaintenanceStatus", [&](const kestrin::plist::Dictionary& info) {
        const kestrin::plist::Value* value = info.find("maintenanceRequested");
        std::lock_guard lock(mutex);
        requested = value != nullptr && value->asBool().value_or(false);
        answered.notify_all();
      });
  (*center)->post(verb == "request" ? "QVKestrinMaintenanceRequest" : "QVKestrinMaintenanceCancel",
                  {});

  std::unique_lock lock(mutex);
  if (!answered.wait_for(lock, kAnswerLimit, [&] { return requested.has_value(); })) {
    std::fputs("kestrin-maintenance: no Kestrin agent answered on the session bus\n", stderr);
    return 1;
  }
  if (verb == "request") {
    std::puts("Maintenance request sent.");
  } else if (*requested) {
    // The agent's settings keep a request once made; the administrators still heard.
    std::puts("Cancellation sent; the request stays, as this workstation's settings ask.");
  } else {
    std::puts("Maintenance request canceled.");
  }
  lock.unlock();
  observation = {};
  return 0;
}
