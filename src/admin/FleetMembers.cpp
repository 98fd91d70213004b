#include "admin/FleetMembers.h"

#include <algorithm>
#include <thread>

#include "admin/CommandLine.h"

namespace kestrin::admin {

FleetMembers::FleetMembers(std::function<std::vector<AgentAddress>()> find, Fleet::Options options,
                           Listener& listener)
    : find_(std::move(find)), options_(std::move(options)), listener_(listener) {}

FleetMembers::~FleetMembers() {
  std::map<std::string, std::shared_ptr<AdminClient>> ending;
  {
    std::lock_guard lock(mutex_);
    ending.swap(members_);
  }
}

std::size_t FleetMembers::look() {
  std::vector<AgentAddress> found;
  try {
    found = find_();
  } catch (const CommandFailure& failure) {
    listener_.unreachable("", failure.what());
    std::lock_guard lock(mutex_);
    return members_.size() - gone_.size();
  }
  dropGone();
  std::vector<AgentAddress> toJoin;
  {
    std::lock_guard lock(mutex_);
    wanted_.clear();
    for (const AgentAddress& agent : found) {
      std::string where = addressText(agent);
      wanted_.push_back(where);
      if (!members_.contains(where)) {
        toJoin.push_back(agent);
      }
    }
  }
  std::mutex slots;
  std::size_t next = 0;
  auto worker = [&] {
    for (;;) {
      AgentAddress agent;
      {
        std::lock_guard lock(slots);
        if (next == toJoin.size()) {
          return;
        }
        agent = toJoin[next++];
      }
      join(agent);
    }
  };
  std::vector<std::thread> joining;
  for (std::size_t i = 0; i < std::min(std::max<std::size_t>(options_.parallel, 1), toJoin.size());
       ++i) {
    joining.emplace_back(worker);
  }
  for (std::thread& thread : joining) {
    thread.join();
  }
  std::lock_guard lock(mutex_);
  return members_.size() - gone_.size();
}

void FleetMembers::join(const AgentAddress& agent) {
  std::string where = addressText(agent);
  auto connected =
      AdminClient::connect(agent, options_.limit, listener_.eventsFor(where), options_.trust);
  if (!connected) {
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      first = unreachable_.insert(where).second;
    }
    if (first) {
      listener_.unreachable(where, connected.message());
    }
    return;
  }
  std::shared_ptr<AdminClient> client = std::move(*connected);
  // Events may be far apart: only connecting had a limit. Calls made later set their own.
  client->connection().setReplyTimeout(std::chrono::milliseconds(0));
  client->connection().setDisconnectHandler([this, where] {
    bool first = false;
    {
      std::lock_guard lock(mutex_);
      first = members_.contains(where) && gone_.insert(where).second;
    }
    if (first) {
      listener_.gone(where);
    }
  });
  {
    std::lock_guard lock(mutex_);
    unreachable_.erase(where);
    members_[where] = client;
  }
  listener_.joined(where, *client);
}

void FleetMembers::dropGone() {
  // Ended after the lock is let go: ending a connection waits for its thread.
  std::vector<std::shared_ptr<AdminClient>> ended;
  std::lock_guard lock(mutex_);
  for (const std::string& where : gone_) {
    auto it = members_.find(where);
    if (it != members_.end()) {
      ended.push_back(std::move(it->second));
      members_.erase(it);
    }
  }
  gone_.clear();
}

std::shared_ptr<AdminClient> FleetMembers::client(const std::string& where) const {
  std::lock_guard lock(mutex_);
  auto it = members_.find(where);
  return it == members_.end() || gone_.contains(where) ? nullptr : it->second;
}

std::vector<std::string> FleetMembers::wanted() const {
  std::lock_guard lock(mutex_);
  return wanted_;
}

} // namespace kestrin::admin
