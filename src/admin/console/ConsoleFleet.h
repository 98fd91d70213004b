#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "admin/FleetMembers.h"
#include "admin/QVErrorCallback.h"
#include "plist/Value.h"

namespace kestrin::admin {

// What the browser console shows of a fleet: a row per workstation, kept current by looking at
// every agent now and then and by what the agents push, and the events they push, newest
// last, each with a number so that a page asks only for what it has not seen.
//
// Thread-safe. The rows and events are read from the server's loop; the looking, the calls and
// the agents' deliveries happen on threads of their own.
class ConsoleFleet : public FleetMembers::Listener {
public:
  struct Options {
    Fleet::Options fleet;
    std::function<std::vector<AgentAddress>()> find;
    // How often every agent is looked at again.
    std::chrono::milliseconds refresh{10000};
    // Events kept for pages that connect later.
    std::size_t eventsKept = 1000;
  };

  explicit ConsoleFleet(Options options);
  ~ConsoleFleet() override;

  // Starts looking, at once and then every `refresh`.
  void start();
  // Looks again now (a page's "refresh"), without waiting for it.
  void lookSoon();

  // A row per workstation, in the order found, and a number that changes with any of them.
  plist::Array rows() const;
  std::uint64_t rowsGeneration() const { return generation_.load(); }
  // The events numbered above `after`, oldest first; the newest number in `newest`.
  plist::Array eventsAfter(std::uint64_t after, std::uint64_t& newest) const;

  // The administrator has looked at this workstation: its crash is no news any more.
  void markSeen(const std::string& where);
  // An agent's connection for a call, null when it is not connected now.
  std::shared_ptr<AdminClient> client(const std::string& where) const;
  // Called when an agent rejected a password (1006): the console forgets the ones it holds.
  void setPasswordRejected(std::function<void()> handler);

  // FleetMembers::Listener
  QVErrorCallback::Parent* eventsFor(const std::string& where) override;
  void joined(const std::string& where, AdminClient& client) override;
  void gone(const std::string& where) override;
  void unreachable(const std::string& where, const std::string& why) override;

private:
  class AgentEvents;
  struct Row {
    std::string name;
    std::string model;
    bool reachable = false;
    std::string key = "new"; // known, new, CHANGED
    bool maintenance = false;
    std::optional<std::int64_t> updates;
    bool crashed = false;
    std::vector<std::string> running;
    std::string error;
  };

  void loop();
  void refresh(const std::string& where);
  void addEvent(const std::string& where, const std::string& kind, plist::Dictionary detail);
  Row& rowLocked(const std::string& where);
  void changedLocked();

  Options options_;
  std::unique_ptr<FleetMembers> members_;
  mutable std::mutex mutex_;
  mutable std::condition_variable news_;
  std::map<std::string, Row> rows_;
  std::map<std::string, std::unique_ptr<AgentEvents>> events_;
  std::deque<plist::Dictionary> log_;
  std::uint64_t lastEvent_ = 0;
  std::atomic<std::uint64_t> generation_{1};
  std::function<void()> passwordRejected_;
  bool stopping_ = false;
  bool lookNow_ = false;
  std::thread looker_;
};

} // namespace kestrin::admin
