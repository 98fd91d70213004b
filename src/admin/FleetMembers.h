#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "admin/AdminClient.h"
#include "admin/Fleet.h"

namespace kestrin::admin {

// The agents of a fleet held connected, each with an error callback registered, for as long as
// they stay: those found at each look are joined, a closed connection is dropped and reported
// once, and the agent is joined again when a later look finds it answering.
//
// Thread-safe. Connections are ended on the thread that looks, never from their own threads.
class FleetMembers {
public:
  class Listener {
  public:
    virtual ~Listener() = default;
    // Where a member's events go; asked before it is connected, kept while it is a member.
    virtual QVErrorCallback::Parent* eventsFor(const std::string& where) = 0;
    virtual void joined(const std::string& /*where*/, AdminClient& /*client*/) {}
    virtual void gone(const std::string& /*where*/) {}
    // Said once until the agent is joined again.
    virtual void unreachable(const std::string& /*where*/, const std::string& /*why*/) {}
  };

  // `find` answers the agents wanted now; it may throw CommandFailure, which is reported to
  // the listener as the fleet's own failure (where = "") and leaves the members as they are.
  FleetMembers(std::function<std::vector<AgentAddress>()> find, Fleet::Options options,
               Listener& listener);
  ~FleetMembers();

  // Joins what is wanted and not connected, a bounded number at a time; answers how many
  // agents are connected now.
  std::size_t look();
  // A member's connection, null when it is none (now).
  std::shared_ptr<AdminClient> client(const std::string& where) const;
  // Every agent wanted at the last look, connected or not, in the order found.
  std::vector<std::string> wanted() const;

private:
  void join(const AgentAddress& agent);
  void dropGone();

  std::function<std::vector<AgentAddress>()> find_;
  Fleet::Options options_;
  Listener& listener_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<AdminClient>> members_;
  std::vector<std::string> wanted_;
  std::set<std::string> gone_;
  std::set<std::string> unreachable_;
};

} // namespace kestrin::admin
