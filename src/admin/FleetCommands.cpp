#include "admin/FleetCommands.h"

#include <csignal>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include <unistd.h>

#include <fmt/format.h>

#include "admin/AnswerFilter.h"
#include "admin/CommandLine.h"
#include "admin/EventPrinter.h"
#include "admin/Fleet.h"
#include "admin/FleetMembers.h"
#include "admin/FleetTargets.h"
#include "admin/JsonValue.h"

namespace kestrin::admin {

namespace {

using std::chrono::milliseconds;
using Outcome = FleetResult::Outcome;

constexpr std::size_t kShortAnswer = 100;
// How long DNS-SD is listened to before a fleet is called, unless told.
constexpr milliseconds kBrowseWindow{3000};
// How often a watch looks again for agents that appeared or came back.
constexpr std::chrono::seconds kRescan{5};

std::string_view outcomeText(Outcome outcome) {
  switch (outcome) {
  case Outcome::Answered:
    return "answered";
  case Outcome::Failed:
    return "failed";
  case Outcome::TimedOut:
    return "timed out";
  }
  return "";
}

std::string shortened(std::string text) {
  if (text.size() > kShortAnswer) {
    text.resize(kShortAnswer);
    text += "...";
  }
  return text;
}

std::string summaryText(const FleetSummary& summary, std::optional<std::size_t> matched) {
  return fmt::format("{} answered{}, {} failed, {} timed out", summary.answered,
                     matched ? fmt::format(" ({} matched)", *matched) : "", summary.failed,
                     summary.timedOut);
}

// Where the fleet is: --hosts FILE, or what DNS-SD finds within the window.
struct Targets {
  std::optional<std::string> hostsFile;
  milliseconds window = kBrowseWindow;

  std::vector<AgentAddress> find() const {
    auto agents = hostsFile ? readHostsFile(*hostsFile) : discoverAgents(window);
    if (!agents) {
      throw CommandFailure(hostsFile ? kExitUsage : kExitUnreachable, agents.message());
    }
    return *agents;
  }
};

Targets takeTargets(CommandLine& command) {
  Targets targets;
  targets.hostsFile = command.option("--hosts");
  if (auto window = command.seconds("--browse")) {
    targets.window = milliseconds(static_cast<std::int64_t>(*window * 1000));
  }
  return targets;
}

// Rows as results arrive, with a progress line on standard error when that is a terminal.
class RowPrinter {
public:
  RowPrinter(bool json, std::optional<AnswerFilter> filter, std::size_t total)
      : json_(json), filter_(std::move(filter)), total_(total),
        progress_(::isatty(STDERR_FILENO) == 1) {}

  void print(const FleetResult& result, const FleetSummary& counted) {
    std::lock_guard lock(outputLock());
    ++done_;
    bool shown = result.outcome != Outcome::Answered || !filter_ || filter_->matches(result.answer);
    if (filter_ && result.outcome == Outcome::Answered && shown) {
      ++matched_;
    }
    if (progress_) {
      std::cerr << "\r\033[K" << std::flush;
    }
    if (shown) {
      std::cout << (json_ ? jsonRow(result) : textRow(result)) << std::endl;
    }
    if (progress_) {
      std::cerr << fmt::format("[{}/{}] {}", done_, total_, summaryText(counted, std::nullopt))
                << std::flush;
    }
  }
  void finish(const FleetSummary& summary) {
    std::lock_guard lock(outputLock());
    if (progress_) {
      std::cerr << "\r\033[K" << std::flush;
    }
    std::optional<std::size_t> matched = filter_ ? std::optional(matched_) : std::nullopt;
    // Standard output stays one JSON object a line for scripts.
    (json_ ? std::cerr : std::cout) << summaryText(summary, matched) << std::endl;
  }

private:
  static std::string textRow(const FleetResult& result) {
    std::string detail = result.outcome == Outcome::Answered
                             ? shortened(jsonFromValue(result.answer))
                             : fmt::format("{}: {}", outcomeText(result.outcome), result.error);
    return fmt::format("{}\t{} ms\t{}", addressText(result.agent), result.elapsed.count(), detail);
  }
  static std::string jsonRow(const FleetResult& result) {
    plist::Dictionary row;
    row.set("agent", plist::Value(addressText(result.agent)));
    row.set("ms", plist::Value(static_cast<std::int64_t>(result.elapsed.count())));
    row.set("outcome", plist::Value(std::string(outcomeText(result.outcome))));
    if (result.outcome == Outcome::Answered) {
      row.set("answer", result.answer);
    } else {
      row.set("error", plist::Value(result.error));
    }
    return jsonFromValue(plist::Value(std::move(row)));
  }

  bool json_;
  std::optional<AnswerFilter> filter_;
  std::size_t total_;
  bool progress_;
  std::size_t done_ = 0;
  std::size_t matched_ = 0;
};

int callFleet(const CommandLine& command, const std::vector<std::string>& operands,
              const Targets& targets, std::size_t parallel, bool json,
              std::optional<AnswerFilter> filter) {
  std::vector<plist::Value> arguments;
  for (std::size_t i = 1; i < operands.size(); ++i) {
    auto value = valueFromJson(operands[i]);
    if (!value) {
      refuseJsonArgument(i, operands[i], value.message());
    }
    arguments.push_back(std::move(*value));
  }
  std::vector<AgentAddress> agents = targets.find();
  if (agents.empty()) {
    throw CommandFailure(kExitUnreachable, "no agents found");
  }

  Fleet::Options options{parallel, command.timeout(), command.trust()};
  RowPrinter printer(json, std::move(filter), agents.size());
  FleetSummary counted;
  std::string selector = operands[0];
  FleetSummary summary = Fleet::run(
      agents, options, [&](AdminClient& agent) { return agent.call(selector, arguments); },
      [&](const FleetResult& result) {
        // Reports come one at a time: the running count is the fleet's own.
        counted.count(result);
        printer.print(result, counted);
      });
  printer.finish(summary);
  if (summary.timedOut + summary.failed > summary.agentErrors) {
    return kExitUnreachable;
  }
  return summary.agentErrors > 0 ? kExitAgentError : kExitOk;
}

// Every agent's events as one stream, each line after its agent's address.
class WatchPrinter : public FleetMembers::Listener {
public:
  QVErrorCallback::Parent* eventsFor(const std::string& where) override {
    std::lock_guard lock(mutex_);
    auto& printer = printers_[where];
    if (!printer) {
      printer = std::make_unique<EventPrinter>(std::cout, where);
    }
    return printer.get();
  }
  void joined(const std::string& where, AdminClient& client) override {
    std::lock_guard lock(mutex_);
    printers_[where]->setCallback(client.callback().get());
    say(where + " joined");
  }
  void gone(const std::string& where) override { say(where + " gone"); }
  void unreachable(const std::string& where, const std::string& why) override {
    say(where.empty() ? "ambrant: " + why : where + " unreachable: " + why);
  }

private:
  static void say(const std::string& line) {
    std::lock_guard lock(outputLock());
    std::cout << line << std::endl;
  }

  std::mutex mutex_;
  // Kept for the whole watch: a member's callback may still deliver after it is gone.
  std::map<std::string, std::unique_ptr<EventPrinter>> printers_;
};

int watchFleet(const CommandLine& command, const Targets& targets, std::size_t parallel) {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr); // before any thread: only this one takes them

  WatchPrinter printer;
  FleetMembers watch([&targets] { return targets.find(); },
                     {parallel, command.timeout(), command.trust()}, printer);
  std::size_t heard = watch.look();
  {
    std::lock_guard lock(outputLock());
    std::cerr << "watching " << heard << " agents" << std::endl;
  }
  timespec rescan{kRescan.count(), 0};
  for (;;) {
    if (sigtimedwait(&stop, nullptr, &rescan) > 0) {
      return kExitOk;
    }
    watch.look();
  }
}

} // namespace

int fleetCommand(CommandLine& command) {
  Targets targets = takeTargets(command);
  std::size_t parallel = 32;
  if (auto given = command.option("--parallel")) {
    try {
      std::size_t end = 0;
      long value = std::stol(*given, &end);
      if (end != given->size() || value < 1 || value > 1024) {
        throw std::invalid_argument("range");
      }
      parallel = static_cast<std::size_t>(value);
    } catch (const std::exception&) {
      throw UsageError(fmt::format("--parallel takes a number from 1 to 1024, not '{}'", *given));
    }
  }
  bool json = command.flag("--json");
  std::optional<AnswerFilter> filter;
  if (auto where = command.option("--where")) {
    auto parsed = AnswerFilter::parse(*where);
    if (!parsed) {
      throw UsageError(parsed.message());
    }
    filter = std::move(*parsed);
  }
  auto operands = command.operandsAtLeast({"SELECTOR"});
  // "watch" is no selector: every selector of an agent is a method name, and none is that.
  if (operands[0] == "watch") {
    if (operands.size() > 1) {
      throw UsageError(fmt::format("unexpected argument '{}'", operands[1]));
    }
    if (json || filter) {
      throw UsageError("--json and --where are for calls, not for watch");
    }
    return watchFleet(command, targets, parallel);
  }
  return callFleet(command, operands, targets, parallel, json, std::move(filter));
}

} // namespace kestrin::admin
