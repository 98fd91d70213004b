#include "admin/console/ConsoleFleet.h"

#include <algorithm>

#include "admin/ConfigurationReceiver.h"
#include "support/NamedException.h"

namespace kestrin::admin {

using plist::Value;

namespace {

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

} // namespace

// One agent's deliveries, turned into the console's events and row changes.
class ConsoleFleet::AgentEvents : public QVErrorCallback::Parent {
public:
  AgentEvents(ConsoleFleet& fleet, std::string where) : fleet_(fleet), where_(std::move(where)) {}
  void setCallback(const QVErrorCallback* callback) { callback_.store(callback); }

  void removeStoredPasswordForHost(const std::string&) override {
    std::function<void()> handler;
    {
      std::lock_guard lock(fleet_.mutex_);
      handler = fleet_.passwordRejected_;
    }
    if (handler) {
      handler();
    }
  }
  void postLocalNotification(const std::string& name) override {
    const QVErrorCallback* callback = callback_.load();
    if (name == "QVAmbrantErrorLabelRefresh" && callback != nullptr) {
      plist::Array queue = callback->errorQueue();
      if (!queue.empty() && queue.front().asDictionary()) {
        fleet_.addEvent(where_, "error", *queue.front().asDictionary());
      }
    } else if (name == "QVAmbrantProgressIncrement") {
      fleet_.addEvent(where_, "progress", {});
    } else if (name == "QVAmbrantTaskFinished") {
      fleet_.addEvent(where_, "finished", {});
    }
  }
  void serviceEvent(const std::string& selector, const std::vector<Value>& arguments) override {
    plist::Dictionary detail{{"selector", selector},
                             {"arguments", plist::Array(arguments.begin(), arguments.end())}};
    {
      std::lock_guard lock(fleet_.mutex_);
      Row& row = fleet_.rowLocked(where_);
      if (selector == "requestMaintenance:") {
        row.maintenance = true;
      } else if (selector == "cancelMaintenance:") {
        row.maintenance = false;
      } else if (selector == "setSoftwareUpdateCount:hostname:" && !arguments.empty()) {
        row.updates = arguments[0].integerValue();
      }
      fleet_.changedLocked();
    }
    fleet_.addEvent(where_, "event", std::move(detail));
    if (selector == "updateConfig:" || selector == "forceConfigReload:") {
      fleet_.lookSoon();
    }
  }

private:
  ConsoleFleet& fleet_;
  std::string where_;
  std::atomic<const QVErrorCallback*> callback_{nullptr};
};

ConsoleFleet::ConsoleFleet(Options options) : options_(std::move(options)) {
  members_ = std::make_unique<FleetMembers>(options_.find, options_.fleet, *this);
}

ConsoleFleet::~ConsoleFleet() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  news_.notify_all();
  if (looker_.joinable()) {
    looker_.join();
  }
  members_.reset();
}

void ConsoleFleet::start() {
  looker_ = std::thread([this] { loop(); });
}

void ConsoleFleet::lookSoon() {
  {
    std::lock_guard lock(mutex_);
    lookNow_ = true;
  }
  news_.notify_all();
}

void ConsoleFleet::loop() {
  for (;;) {
    members_->look();
    std::vector<std::string> wanted = members_->wanted();
    {
      std::lock_guard lock(mutex_);
      // Workstations no longer found leave the table.
      for (auto it = rows_.begin(); it != rows_.end();) {
        bool kept = std::find(wanted.begin(), wanted.end(), it->first) != wanted.end();
        it = kept ? std::next(it) : rows_.erase(it);
      }
      for (const std::string& where : wanted) {
        rowLocked(where);
      }
      changedLocked();
    }
    std::vector<AgentAddress> agents;
    for (const std::string& where : wanted) {
      if (auto address = parseAgentAddress(where)) {
        agents.push_back(*address);
      }
    }
    // A bounded number at a time, so a slow agent holds only its own row back.
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    std::size_t count = std::min(std::max<std::size_t>(options_.fleet.parallel, 1), wanted.size());
    for (std::size_t i = 0; i < count; ++i) {
      threads.emplace_back([&] {
        for (std::size_t at = next++; at < wanted.size(); at = next++) {
          refresh(wanted[at]);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }

    std::unique_lock lock(mutex_);
    news_.wait_for(lock, options_.refresh, [this] { return stopping_ || lookNow_; });
    if (stopping_) {
      return;
    }
    lookNow_ = false;
  }
}

void ConsoleFleet::refresh(const std::string& where) {
  std::shared_ptr<AdminClient> client = members_->client(where);
  if (!client) {
    return;
  }
  try {
    auto receiver = std::make_shared<ConfigurationReceiver>();
    client->call("fetchInitialConfiguration:", {Value(plist::ObjectRef(receiver))});
    std::optional<plist::Dictionary> configuration =
        receiver->waitForConfiguration(options_.fleet.limit);
    Value applications = client->call("ambrantAppInfo");
    Value specs = client->call("systemSpecs");

    std::lock_guard lock(mutex_);
    Row& row = rowLocked(where);
    row.reachable = true;
    row.error.clear();
    if (configuration) {
      if (const Value* name = configuration->find("preferredHostName"); name && name->asString()) {
        row.name = *name->asString();
      }
      if (const Value* wanted = configuration->find("maintenanceRequested")) {
        row.maintenance = wanted->boolValue().value_or(false);
      }
      if (const Value* count = configuration->find("availableUpdateCount")) {
        row.updates = count->integerValue();
      }
      if (configuration->contains("selfCrashLog")) {
        row.crashed = true; // told once by the agent: kept until the administrator looks
      }
    }
    if (const plist::Dictionary* facts = specs.asDictionary()) {
      if (const Value* model = facts->find("Hardware Model"); model && model->asString()) {
        row.model = *model->asString();
      }
    }
    row.running.clear();
    if (const plist::Dictionary* apps = applications.asDictionary()) {
      for (const auto& [name, record] : *apps) {
        const plist::Dictionary* fields = record.asDictionary();
        const Value* running = fields ? fields->find("running") : nullptr;
        if (running && running->boolValue().value_or(false)) {
          row.running.push_back(name);
        }
      }
    }
    changedLocked();
  } catch (const std::exception& e) {
    std::lock_guard lock(mutex_);
    Row& row = rowLocked(where);
    row.error = e.what();
    changedLocked();
  }
}

plist::Array ConsoleFleet::rows() const {
  std::vector<std::string> order = members_->wanted();
  std::lock_guard lock(mutex_);
  plist::Array rows;
  for (const std::string& where : order) {
    auto it = rows_.find(where);
    if (it == rows_.end()) {
      continue;
    }
    const Row& row = it->second;
    plist::Array running;
    for (const std::string& name : row.running) {
      running.push_back(name);
    }
    rows.push_back(plist::Dictionary{
        {"agent", where},
        {"name", row.name},
        {"model", row.model},
        {"reachable", row.reachable},
        {"key", row.key},
        {"maintenance", row.maintenance},
        {"updates", row.updates ? Value(*row.updates) : Value()},
        {"crashed", row.crashed},
        {"running", running},
        {"error", row.error},
    });
  }
  return rows;
}

plist::Array ConsoleFleet::eventsAfter(std::uint64_t after, std::uint64_t& newest) const {
  std::lock_guard lock(mutex_);
  newest = lastEvent_;
  plist::Array events;
  for (const plist::Dictionary& event : log_) {
    const Value* number = event.find("seq");
    if (number && number->integerValue().value_or(0) > static_cast<std::int64_t>(after)) {
      events.push_back(event);
    }
  }
  return events;
}

void ConsoleFleet::markSeen(const std::string& where) {
  std::lock_guard lock(mutex_);
  auto it = rows_.find(where);
  if (it != rows_.end() && it->second.crashed) {
    it->second.crashed = false;
    changedLocked();
  }
}

std::shared_ptr<AdminClient> ConsoleFleet::client(const std::string& where) const {
  return members_->client(where);
}

void ConsoleFleet::setPasswordRejected(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  passwordRejected_ = std::move(handler);
}

QVErrorCallback::Parent* ConsoleFleet::eventsFor(const std::string& where) {
  std::lock_guard lock(mutex_);
  auto& events = events_[where];
  if (!events) {
    events = std::make_unique<AgentEvents>(*this, where);
  }
  return events.get();
}

void ConsoleFleet::joined(const std::string& where, AdminClient& client) {
  // Calls from the console have the fleet's limit: a stuck agent holds one row, not a thread
  // for ever.
  client.connection().setReplyTimeout(options_.fleet.limit);
  std::lock_guard lock(mutex_);
  events_[where]->setCallback(client.callback().get());
  Row& row = rowLocked(where);
  row.reachable = true;
  row.error.clear();
  // Met before this console started, or recorded just now at the first contact.
  row.key = client.firstContact() ? "new" : "known";
  changedLocked();
}

void ConsoleFleet::gone(const std::string& where) {
  {
    std::lock_guard lock(mutex_);
    Row& row = rowLocked(where);
    row.reachable = false;
    row.error = "the agent closed the connection";
    changedLocked();
  }
  addEvent(where, "gone", {});
}

void ConsoleFleet::unreachable(const std::string& where, const std::string& why) {
  if (where.empty()) {
    addEvent("", "error", plist::Dictionary{{"description", why}});
    return;
  }
  std::lock_guard lock(mutex_);
  Row& row = rowLocked(where);
  row.reachable = false;
  row.error = why;
  if (why.find("presented the key") != std::string::npos) {
    row.key = "CHANGED";
  }
  changedLocked();
}

void ConsoleFleet::addEvent(const std::string& where, const std::string& kind,
                            plist::Dictionary detail) {
  {
    std::lock_guard lock(mutex_);
    detail.set("seq", static_cast<std::int64_t>(++lastEvent_));
    detail.set("agent", where);
    detail.set("kind", kind);
    detail.set("time", nowSeconds());
    log_.push_back(std::move(detail));
    while (log_.size() > options_.eventsKept) {
      log_.pop_front();
    }
  }
  news_.notify_all();
}

ConsoleFleet::Row& ConsoleFleet::rowLocked(const std::string& where) {
  return rows_[where];
}

void ConsoleFleet::changedLocked() {
  ++generation_;
  news_.notify_all();
}

} // namespace kestrin::admin
