#include "admin/CommandLine.h"

#include <cctype>
#include <charconv>
#include <cmath>

#include <unistd.h>

#include <fmt/format.h>

#include "support/NamedException.h"
#include "transport/TlsIdentity.h"

namespace kestrin::admin {

CommandLine::CommandLine(std::vector<std::string> arguments, std::chrono::milliseconds timeout,
                         bool timeoutGiven)
    : arguments_(std::move(arguments)), timeout_(timeout), timeoutGiven_(timeoutGiven),
      known_(consoleConfigurationFolder() + "/known_agents") {}

const ConsoleTrust& CommandLine::trust() const {
  if (!trust_) {
    std::string path = consoleConfigurationFolder() + "/identity.pem";
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    auto identity = transport::TlsIdentity::loadOrCreate(path, std::string("ambrant on ") + host);
    if (!identity) {
      throw CommandFailure(kExitUnreachable,
                           "cannot use this console's TLS key: " + identity.message());
    }
    trust_ = ConsoleTrust{*identity, &known_};
  }
  return *trust_;
}

bool CommandLine::flag(std::string_view name) {
  for (auto it = arguments_.begin(); it != arguments_.end(); ++it) {
    if (*it == name) {
      arguments_.erase(it);
      return true;
    }
  }
  return false;
}

std::optional<std::string> CommandLine::option(std::string_view name) {
  for (auto it = arguments_.begin(); it != arguments_.end(); ++it) {
    if (*it != name) {
      continue;
    }
    if (it + 1 == arguments_.end()) {
      throw UsageError(fmt::format("{} needs a value", name));
    }
    std::string value = *(it + 1);
    arguments_.erase(it, it + 2);
    return value;
  }
  return std::nullopt;
}

std::optional<double> CommandLine::seconds(std::string_view name) {
  auto text = option(name);
  if (!text) {
    return std::nullopt;
  }
  double value = 0;
  auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size() || !std::isfinite(value) ||
      value < 0) {
    throw UsageError(
        fmt::format("{} takes a number of seconds, zero or more, not '{}'", name, *text));
  }
  return value;
}

void CommandLine::refuseLeftOptions() const {
  for (const std::string& argument : arguments_) {
    // "-" alone and negative numbers are operands.
    if (argument.size() > 1 && argument[0] == '-' &&
        !(std::isdigit(static_cast<unsigned char>(argument[1])) || argument[1] == '.')) {
      throw UsageError(fmt::format("unknown option '{}'", argument));
    }
  }
}

std::vector<std::string> CommandLine::operands(std::initializer_list<std::string_view> names) {
  auto found = operandsAtLeast(names);
  if (found.size() > names.size()) {
    throw UsageError(fmt::format("unexpected argument '{}'", found[names.size()]));
  }
  return found;
}

std::vector<std::string>
CommandLine::operandsAtLeast(std::initializer_list<std::string_view> names) {
  refuseLeftOptions();
  if (arguments_.size() < names.size()) {
    throw UsageError(fmt::format("{} is missing", *(names.begin() + arguments_.size())));
  }
  return arguments_;
}

std::unique_ptr<AdminClient> CommandLine::connect(const std::string& where,
                                                  QVErrorCallback::Parent* events) const {
  auto address = parseAgentAddress(where);
  if (!address) {
    throw UsageError(address.message());
  }
  auto client = AdminClient::connect(*address, timeout_, events, trust());
  if (!client) {
    throw CommandFailure(kExitUnreachable, client.message());
  }
  return std::move(*client);
}

void refuseJsonArgument(std::size_t position, const std::string& text, const std::string& why) {
  bool bareWord = !text.empty() && std::isalpha(static_cast<unsigned char>(text[0])) &&
                  text != "true" && text != "false" && text != "null";
  if (bareWord) {
    throw UsageError(fmt::format("argument {} ({}) is not JSON: a string keeps its double quotes, "
                                 "so write '\"{}\"' (the single quotes keep them from the shell)",
                                 position, text, text));
  }
  throw UsageError(fmt::format("argument {} ({}) is not JSON: {}", position, text, why));
}

plist::Value callAgent(AdminClient& agent, const std::string& selector,
                       std::vector<plist::Value> arguments) {
  try {
    return agent.call(selector, std::move(arguments));
  } catch (const NamedException& e) {
    bool lost = e.name() == kInvalidSendPortException || e.name() == kPortTimeoutException;
    throw CommandFailure(lost ? kExitUnreachable : kExitAgentError,
                         fmt::format("{}: {}", e.name(), e.what()));
  }
}

} // namespace kestrin::admin
