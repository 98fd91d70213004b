#pragma once

#include <chrono>
#include <initializer_list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "admin/AdminClient.h"

namespace kestrin::admin {

// How ambrant ends, for the scripts that run it.
inline constexpr int kExitOk = 0;
inline constexpr int kExitAgentError = 1;  // the agent answered, with an error
inline constexpr int kExitUnreachable = 2; // no agent answered: refused, silent, not an agent
inline constexpr int kExitUsage = 64;      // the command line is wrong (EX_USAGE)

// Ends a command: the message goes to standard error, the status is ambrant's exit status.
class CommandFailure : public std::runtime_error {
public:
  CommandFailure(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

private:
  int status_;
};

// A command line that cannot be run as written. The message names the argument at fault; the
// command's usage follows it.
class UsageError : public CommandFailure {
public:
  explicit UsageError(const std::string& message) : CommandFailure(kExitUsage, message) {}
};

// One command's arguments, with the options every command shares already taken out, and the
// way to reach agents within the time limit. Options may stand anywhere among the operands.
class CommandLine {
public:
  CommandLine(std::vector<std::string> arguments, std::chrono::milliseconds timeout,
              bool timeoutGiven);

  bool flag(std::string_view name);
  // The value after `name`; a UsageError when it is missing.
  std::optional<std::string> option(std::string_view name);
  // A number of seconds, zero or more.
  std::optional<double> seconds(std::string_view name);

  // The operands, exactly one per name ("HOST:PORT", "FILE"): a UsageError names an option
  // nobody took, the first operand too many or the first one missing.
  std::vector<std::string> operands(std::initializer_list<std::string_view> names);
  // At least one per name, any number after.
  std::vector<std::string> operandsAtLeast(std::initializer_list<std::string_view> names);

  // Per connection and per call; zero is no limit.
  std::chrono::milliseconds timeout() const { return timeout_; }
  bool timeoutGiven() const { return timeoutGiven_; }

  // An agent at HOST:PORT, connected with an error callback registered (events go to `events`,
  // which may be null). Throws CommandFailure: a usage error for an address that is not one,
  // kExitUnreachable when nothing answers or what answers is not an agent.
  std::unique_ptr<AdminClient> connect(const std::string& where,
                                       QVErrorCallback::Parent* events = nullptr) const;

  // This console's identity and the agents it knows, from its configuration folder; the
  // identity is made at the first use.
  const ConsoleTrust& trust() const;
  const KnownAgents& knownAgents() const { return known_; }

private:
  void refuseLeftOptions() const;

  std::vector<std::string> arguments_;
  std::chrono::milliseconds timeout_;
  bool timeoutGiven_;
  KnownAgents known_;
  mutable std::optional<ConsoleTrust> trust_;
};

// Calls an operation; an error the agent raised ends the command with kExitAgentError, a
// connection that failed with kExitUnreachable.
plist::Value callAgent(AdminClient& agent, const std::string& selector,
                       std::vector<plist::Value> arguments = {});

// Refuses a value on the command line that is not JSON (argument `position`, counted from 1),
// with a hint for the usual slip: a bare word, whose quotes the shell ate.
[[noreturn]] void refuseJsonArgument(std::size_t position, const std::string& text,
                                     const std::string& why);

} // namespace kestrin::admin
