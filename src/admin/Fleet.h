#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "admin/AdminClient.h"
#include "plist/Value.h"

namespace kestrin::admin {

// One agent's part in a fleet run.
struct FleetResult {
  enum class Outcome { Answered, Failed, TimedOut };

  AgentAddress agent;
  std::chrono::milliseconds elapsed{0};
  Outcome outcome = Outcome::Failed;
  plist::Value answer; // when answered
  std::string error;   // otherwise
  // Failed with the agent's own error, not for want of reaching it.
  bool agentError = false;
};

struct FleetSummary {
  std::size_t answered = 0;
  std::size_t failed = 0;
  std::size_t timedOut = 0;
  std::size_t agentErrors = 0; // of the failed, those the agent answered with an error

  void count(const FleetResult& result);
};

// Does the same work on every agent of a fleet, a bounded number at a time, each within its own
// time limit, and reports each agent's result the moment it is there. A refusing, silent or
// slow agent costs at most its limit and never holds the others.
class Fleet {
public:
  struct Options {
    std::size_t parallel = 32;
    // For each agent, from the start of its connecting to its answer; zero is no limit.
    std::chrono::milliseconds limit{30000};
    ConsoleTrust trust;
  };
  // What each agent is asked; throws as AdminClient::call does.
  using Work = std::function<plist::Value(AdminClient&)>;
  // Called once per agent, from the fleet's threads, one call at a time.
  using Report = std::function<void(const FleetResult&)>;

  static FleetSummary run(const std::vector<AgentAddress>& agents, const Options& options,
                          const Work& work, const Report& report);

  // One agent, on the calling thread: what run does for each.
  static FleetResult reach(const AgentAddress& agent, const Options& options, const Work& work);
};

} // namespace kestrin::admin
