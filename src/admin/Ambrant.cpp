#include "admin/Ambrant.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

#include <unistd.h>

#include <fmt/format.h>

#include "admin/AdminClient.h"
#include "admin/ApplicationCommands.h"
#include "admin/BackupCommands.h"
#include "admin/CommandLine.h"
#include "admin/ConfigurationReceiver.h"
#include "admin/CredentialPlaceholders.h"
#include "admin/EventPrinter.h"
#include "admin/FleetCommands.h"
#include "admin/JsonValue.h"
#include "admin/PasswordPrompt.h"
#include "admin/PluginCommands.h"
#include "admin/PrintingDelegate.h"
#include "admin/RenderCommands.h"
#include "admin/SavedLogs.h"
#include "admin/ServeCommand.h"
#include "admin/UpdateCommands.h"
#include "foundation/QVEncryption.h"
#include "platform/ServiceBrowser.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"
#include "transport/RpcClient.h"
#include "transport/TlsIdentity.h"

namespace kestrin::admin {

namespace {

using namespace std::chrono_literals;

// The connection a command's events arrive on, printed as they come.
struct Session {
  EventPrinter printer{std::cerr};
  std::unique_ptr<AdminClient> client;
};

std::unique_ptr<Session> openSession(const CommandLine& command, const std::string& where) {
  auto session = std::make_unique<Session>();
  session->client = command.connect(where, &session->printer);
  session->printer.setCallback(session->client->callback().get());
  return session;
}

void printValue(const plist::Value& value, bool xml) {
  if (xml) {
    auto text = plist::toXml(value);
    std::cout << (text ? *text : "") << std::flush;
  } else {
    std::cout << jsonFromValue(value) << std::endl;
  }
}

// Puts the administrator's name and password where the arguments ask for them. The password
// exists in this process only as long as it takes to encrypt it.
Expected<void> fillCredentials(std::vector<plist::Value>& values,
                               const std::optional<std::string>& user, bool passwordFromStdin) {
  std::optional<plist::Data> encrypted;
  std::optional<Failure> failure;
  auto credentials = [&](std::string_view placeholder) -> plist::Value {
    if (!user) {
      failure = Failure{std::string(placeholder) + " needs --user"};
      return {};
    }
    if (placeholder == kUserPlaceholder) {
      return *user;
    }
    if (!encrypted) {
      auto password = passwordFromStdin ? readPasswordLine(STDIN_FILENO)
                                        : promptForPassword("Password for " + *user + ": ");
      if (!password) {
        failure = password.failure();
        return {};
      }
      encrypted = QVEncryption::encryptPassword(password->view());
    }
    return credentialValue(placeholder, *user, *encrypted);
  };
  int count = 0;
  for (plist::Value& value : values) {
    count += replacePlaceholders(value, credentials);
  }
  if (failure) {
    return *failure;
  }
  if (user && count == 0) {
    return Failure{"--user given, but no argument asks for {\"$user\"}, {\"$password\"} or "
                   "{\"$credentials\"}"};
  }
  return {};
}

int call(CommandLine& command) {
  bool xml = command.flag("--xml");
  double linger = command.seconds("--linger").value_or(0);
  std::optional<std::string> user = command.option("--user");
  bool passwordFromStdin = command.flag("--password-stdin");
  if (passwordFromStdin && !user) {
    throw UsageError("--password-stdin needs --user");
  }
  auto operands = command.operandsAtLeast({"HOST:PORT", "SELECTOR"});
  std::vector<std::shared_ptr<PrintingDelegate>> delegates;
  auto makeDelegate = [&delegates]() -> plist::ObjectRef {
    return delegates.emplace_back(std::make_shared<PrintingDelegate>(std::cerr));
  };
  std::vector<plist::Value> values;
  for (std::size_t i = 2; i < operands.size(); ++i) {
    auto value = valueFromJson(operands[i], makeDelegate);
    if (!value) {
      refuseJsonArgument(i - 1, operands[i], value.message());
    }
    values.push_back(std::move(*value));
  }
  if (auto filled = fillCredentials(values, user, passwordFromStdin); !filled) {
    throw UsageError(filled.message());
  }
  auto session = openSession(command, operands[0]);
  int status = kExitOk;
  try {
    printValue(callAgent(*session->client, operands[1], std::move(values)), xml);
  } catch (const CommandFailure& failure) {
    std::cerr << "ambrant: " << failure.what() << std::endl;
    status = failure.status();
  }
  // Deliveries to delegates and events may follow the answer; a closed connection brings none.
  auto end = std::chrono::steady_clock::now() +
             std::chrono::milliseconds(static_cast<long>(linger * 1000));
  while (std::chrono::steady_clock::now() < end && session->client->connection().isConnected()) {
    std::this_thread::sleep_for(20ms);
  }
  return status;
}

// Saves what gatherLogs answers into DIR, one file per path, and prints a line per file saved.
int logs(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT", "DIR"});
  auto session = openSession(command, operands[0]);
  plist::Value gathered = callAgent(*session->client, "gatherLogs");
  if (gathered.isNull()) {
    std::cerr << "ambrant: the agent has no logs" << std::endl;
    return kExitOk;
  }
  const plist::Dictionary* found = gathered.asDictionary();
  if (found == nullptr) {
    throw CommandFailure(kExitAgentError, fmt::format("the agent answered {}, not a dictionary "
                                                      "of logs",
                                                      plist::kindName(gathered.kind())));
  }
  auto report = saveLogs(
      operands[1], *found,
      [](const std::string& path, const std::string& file, std::size_t bytes) {
        std::cout << file << " (" << bytes << " bytes) from " << jsonFromValue(path) << std::endl;
      },
      [](const std::string& path, const std::string& why) {
        std::cerr << "ambrant: not saved: " << jsonFromValue(path) << ": " << why << std::endl;
      });
  if (!report) {
    throw CommandFailure(kExitUsage, report.message());
  }
  return report->skipped == 0 ? kExitOk : kExitAgentError;
}

// The full configuration the agent sends to a receiver of ours, as an admin sees it on first
// connecting.
int config(CommandLine& command) {
  bool xml = command.flag("--xml");
  auto operands = command.operands({"HOST:PORT"});
  auto session = openSession(command, operands[0]);
  auto receiver = std::make_shared<ConfigurationReceiver>();
  callAgent(*session->client, "fetchInitialConfiguration:", {plist::ObjectRef(receiver)});
  auto configuration = receiver->waitForConfiguration(
      command.timeout().count() == 0 ? std::chrono::milliseconds::max() : command.timeout());
  if (!configuration) {
    throw CommandFailure(kExitAgentError, "the agent sent no configuration");
  }
  printValue(*configuration, xml);
  return kExitOk;
}

// Every selector the agent answers, with the kinds of its arguments, as the agent reports them.
int selectors(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto session = openSession(command, operands[0]);
  plist::Value answer = callAgent(*session->client, "operationSignatures");
  const plist::Array* signatures = answer.asArray();
  if (signatures == nullptr) {
    throw CommandFailure(kExitAgentError, "the agent did not list its operations");
  }
  for (const plist::Value& signature : *signatures) {
    const plist::Value* selector = signature.get("selector");
    const plist::Value* kinds = signature.get("arguments");
    if (selector == nullptr || selector->asString() == nullptr) {
      continue;
    }
    std::cout << *selector->asString();
    std::string separator = "\t";
    for (const plist::Value& kind :
         kinds && kinds->asArray() ? *kinds->asArray() : plist::Array{}) {
      std::cout << separator << (kind.asString() ? *kind.asString() : "?");
      separator = ", ";
    }
    std::cout << "\n";
  }
  std::cout << std::flush;
  return kExitOk;
}

int watch(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr); // before any thread: only sigwait sees them

  auto session = openSession(command, operands[0]);
  // Events may be far apart: only the connecting and the registration had a time limit.
  session->client->connection().setReplyTimeout(std::chrono::milliseconds(0));
  session->client->connection().setDisconnectHandler([] {
    std::cerr << "ambrant: the agent closed the connection" << std::endl;
    std::raise(SIGTERM);
  });
  std::cerr << "watching " << operands[0] << std::endl;
  int signal = 0;
  sigwait(&stop, &signal);
  return session->client->connection().isConnected() ? kExitOk : kExitUnreachable;
}

// The "authPass" data for a password read from standard input (one line; its line end is not
// part of the password), without echo when that is a terminal.
int encryptPassword(CommandLine& command) {
  command.operands({});
  auto password = readPasswordLine(STDIN_FILENO);
  if (!password) {
    throw UsageError(password.message());
  }
  std::cout << base64Encode(QVEncryption::encryptPassword(password->view())) << std::endl;
  return kExitOk;
}

// The fingerprint of the certificate the agent at `where` presents, from a TLS handshake and
// nothing more.
Expected<std::string> presentedFingerprint(const CommandLine& command, const std::string& host,
                                           int port, std::chrono::milliseconds limit) {
  auto client =
      transport::RpcClient::connectTcp(host, port, limit, {true, command.trust().identity});
  if (!client) {
    return client.failure();
  }
  if (!(*client)->peerFingerprint()) {
    return Failure{"the agent presented no certificate"};
  }
  return *(*client)->peerFingerprint();
}

std::string_view standingText(KnownAgents::Standing standing) {
  switch (standing) {
  case KnownAgents::Standing::Known:
    return "known";
  case KnownAgents::Standing::New:
    return "new";
  case KnownAgents::Standing::Changed:
    return "CHANGED";
  }
  return "";
}

// One line per agent: name, host, port, whether its key is known, new or changed, whether the
// key it presents is the one it advertises, and its TXT entries.
int browse(CommandLine& command) {
  command.operands({});
  // Browsing waits for answers rather than for one peer: a few seconds unless told.
  auto window = command.timeoutGiven() ? command.timeout() : std::chrono::milliseconds(3000);
  auto found = platform::browseServices("_kestrin._tcp.", window);
  if (!found) {
    throw CommandFailure(kExitUnreachable, found.message());
  }
  for (const platform::FoundService& service : *found) {
    // Reached at the address the responder resolved: the host's .local name may be one that
    // only DNS-SD knows. Known under either name.
    std::string reach = service.address.empty() ? service.host : service.address;
    std::optional<std::string> advertised;
    for (const auto& [name, value] : service.txt) {
      if (name == "fp") {
        advertised = transport::normalizedFingerprint(value);
      }
    }
    auto presented = presentedFingerprint(command, reach, service.port, 3000ms);
    std::optional<std::string> key = presented ? std::optional(*presented) : advertised;
    auto standing = KnownAgents::Standing::New;
    for (const std::string& host : {reach, service.host}) {
      if (key && standing == KnownAgents::Standing::New) {
        standing = command.knownAgents().standing(addressText({host, service.port}), *key);
      }
    }
    std::cout << service.name << "\t" << service.host << "\t" << service.port << "\t"
              << (key ? standingText(standing) : "no key") << "\t"
              << (!presented                                ? "unreachable"
                  : advertised && *advertised == *presented ? "consistent"
                                                            : "INCONSISTENT");
    for (const auto& [name, value] : service.txt) {
      std::cout << "\t" << name << "=" << value;
    }
    std::cout << std::endl;
  }
  return kExitOk;
}

// Accepts the key the agent presents now, after its key was replaced on purpose.
int trust(CommandLine& command) {
  auto operands = command.operands({"HOST:PORT"});
  auto address = parseAgentAddress(operands[0]);
  if (!address) {
    throw UsageError(address.message());
  }
  auto presented = presentedFingerprint(command, address->host, address->port, command.timeout());
  if (!presented) {
    throw CommandFailure(kExitUnreachable, presented.message());
  }
  std::string where = addressText(*address);
  auto before = command.knownAgents().recorded(where);
  if (auto recorded = command.knownAgents().record(where, *presented); !recorded) {
    throw CommandFailure(kExitAgentError, recorded.message());
  }
  std::cout << where << " is known by SHA256:" << *presented
            << (before && *before != *presented ? " (it was SHA256:" + *before + ")" : "")
            << std::endl;
  return kExitOk;
}

// This console's fingerprint, for an agent's authorized_admins.
int id(CommandLine& command) {
  command.operands({});
  std::cout << "SHA256:" << command.trust().identity->fingerprint() << std::endl;
  return kExitOk;
}

int backup(CommandLine& command) {
  return backupCommand(command, std::cout);
}

int restore(CommandLine& command) {
  return restoreCommand(command, std::cout);
}

struct Command {
  std::string_view name;
  std::string_view synopsis; // after "ambrant NAME"
  std::string_view summary;  // one line for the overview
  std::string_view details;  // for "ambrant help NAME"
  int (*run)(CommandLine&);
};

constexpr Command kCommands[] = {
    {"browse", "", "list the agents advertised as _kestrin._tcp. on the local network",
     "Waits 3 s for answers (--timeout changes that) and prints one line per agent: its name,\n"
     "host and port; whether its key is known, new or CHANGED since the first contact; whether\n"
     "the key it presents is the one it advertises (consistent); and its TXT entries. Needs\n"
     "avahi-daemon running on this machine.\n",
     browse},
    {"call",
     "HOST:PORT SELECTOR [ARG ...] [--xml] [--linger SECONDS] [--user NAME [--password-stdin]]",
     "call one of the agent's operations and print its answer",
     "Each ARG is a JSON value: a string keeps its double quotes ('\"text\"'). Beyond JSON,\n"
     "{\"$data\":\"<base64>\"} is data, {\"$date\":\"<ISO 8601>\"} a date, and {\"$delegate\":{}} "
     "a\n"
     "local object that prints every call it gets on standard error.\n"
     "With --user, {\"$user\":null} is NAME, {\"$password\":null} the password encrypted for the\n"
     "agent and {\"$credentials\":null} both as {\"authUser\", \"authPass\"}; the password is "
     "asked\n"
     "for on the terminal without echo, or read as one line from standard input\n"
     "(--password-stdin). Credentials never go on the command line.\n"
     "--xml prints the answer as a property list; --linger waits that long after the answer\n"
     "for deliveries to delegates and for events, which go to standard error.\n",
     call},
    {"watch", "HOST:PORT", "print what the agent pushes back, until interrupted",
     "Registers an error callback and prints each error, progress and finished-task event on\n"
     "standard error as it arrives. Ends on Ctrl-C, or when the agent closes the connection.\n",
     watch},
    {"config", "HOST:PORT [--xml]", "print the configuration an admin reads on connecting",
     "Asks for the full initial configuration (fetchInitialConfiguration:) and prints it.\n",
     config},
    {"selectors", "HOST:PORT", "list the operations the agent answers, with their arguments",
     "One line per selector, with the kinds of its arguments, as the agent itself reports them.\n",
     selectors},
    {"plugins", "HOST:PORT", "print the agent's plug-in tree, by type and folder",
     "One line per type, folder and plug-in: name, version, enabled state and domain.\n",
     [](CommandLine& command) { return pluginsCommand(command); }},
    {"copy-plugin", "FROM:PORT TO:PORT PATH", "copy a plug-in from one agent onto another",
     "Fetches the plug-in at PATH from the first agent and installs it on the second, in the\n"
     "user's folder of its type.\n",
     [](CommandLine& command) { return copyPluginCommand(command); }},
    {"logs", "HOST:PORT DIR", "save the agent's logs and crash reports in DIR",
     "One file per log, named after its path; prints a line per file saved.\n", logs},
    {"backup", "HOST:PORT PATH FILE", "save the agent's preference backup PATH as FILE",
     "PATH is a backup folder on the agent's machine; FILE is written 0600.\n", backup},
    {"restore", "HOST:PORT FILE", "send a saved backup to an agent, which restores it",
     "FILE is what \"ambrant backup\" saved.\n", restore},
    {"trust", "HOST:PORT", "accept the key an agent presents now, after it was replaced",
     "Records the agent's current key in known_agents, in place of the one met before. Do it\n"
     "only when you know why the key changed: an impostor presents a different key too.\n",
     trust},
    {"id", "", "print this console's fingerprint, for an agent's authorized_admins",
     "The console's key and certificate are made at its first use, in its configuration\n"
     "folder ($XDG_CONFIG_HOME/ambrant or ~/.config/ambrant).\n",
     id},
    {"updates", "HOST:PORT", "how many updates of the maker's software wait, and which",
     "Prints the agent's count (refreshed at most once a day) and the updater's list, one\n"
     "update a line: bundle identifier, name, version, type.\n",
     [](CommandLine& command) { return updatesCommand(command); }},
    {"install-update", "HOST:PORT BUNDLEID TYPE [--user NAME [--password-stdin]]",
     "install one update with an administrator's credentials",
     "Asks for the administrator's name and password (the password without echo, or read as\n"
     "one line from standard input with --password-stdin). TYPE is the update's type as the\n"
     "updater's list gives it. The agent reports the end through its events (ambrant watch).\n",
     [](CommandLine& command) { return installUpdateCommand(command); }},
    {"apps", "HOST:PORT", "print the editing applications and the maker's tools as a table",
     "One line per application: name, installed, running, version.\n",
     [](CommandLine& command) { return appsCommand(command); }},
    {"jobs", "HOST:PORT", "print the render clusters, their batches and jobs, as a tree",
     "Asks the agent for every render cluster it sees (qmasterJobs) and prints each cluster,\n"
     "its batches and their jobs, with their attributes.\n",
     [](CommandLine& command) { return jobsCommand(command); }},
    {"fleet",
     "SELECTOR [ARG ...] | watch  [--hosts FILE] [--browse SECONDS] [--parallel N] [--json] "
     "[--where KEY.PATH=VALUE]",
     "call an operation on every agent, or watch them all",
     "Finds the agents by DNS-SD (listening --browse seconds, default 3) or reads them from\n"
     "--hosts FILE (one HOST:PORT a line, # for comments). Calls SELECTOR with the ARGs (JSON,\n"
     "as for call) on every agent, --parallel at a time (default 32), each within --timeout,\n"
     "and prints a row per agent as it answers: address, time taken, the answer in short or\n"
     "the error; then \"N answered, N failed, N timed out\". A progress line shows on a\n"
     "terminal. --json prints one object a line (agent, ms, outcome, answer or error).\n"
     "--where keeps the answers whose KEY.PATH equals VALUE (!= for the others): a path\n"
     "through dictionaries, any element of an array; 'Tibbet.running=true'.\n"
     "\"fleet watch\" registers with every agent and prints their events as one stream, each\n"
     "line after its agent's address; agents that appear later are joined, one that goes is\n"
     "reported once. Ends on Ctrl-C.\n",
     [](CommandLine& command) { return fleetCommand(command); }},
    {"serve", "[--listen HOST:PORT] [--hosts FILE] [--browse SECONDS] [--password-stdin]",
     "serve the administration console to a browser",
     "Serves the console at http://127.0.0.1:8750/ (--listen changes it): every workstation\n"
     "found by DNS-SD or listed in --hosts FILE, updated live, with its configuration,\n"
     "applications, plug-ins, logs, tasks and render jobs, the events the agents push, and the\n"
     "everyday actions. The administrator's credentials are asked for once per browser session\n"
     "and kept only in memory. Bound beyond loopback it speaks only HTTPS, with this console's\n"
     "key, and asks for a console password, set at the first such start (from the terminal, or\n"
     "one line on standard input with --password-stdin). Ends on Ctrl-C.\n",
     [](CommandLine& command) { return serveCommand(command); }},
    {"encrypt-password", "", "print the \"authPass\" data for a password read from standard input",
     "Reads one line without echo on a terminal and prints the encrypted form in base64.\n",
     encryptPassword},
};

constexpr std::string_view kCommonOptions =
    "Options for every command:\n"
    "  --timeout SECONDS   limit for connecting and for each call (default 30, 0 for none)\n"
    "  --help              this command's help\n";

constexpr std::string_view kExitStatuses =
    "Exit status: 0 done, 1 the agent answered with an error, 2 no agent answered (refused,\n"
    "silent, not an agent, or out of time), 64 the command line is wrong.\n";

const Command* findCommand(std::string_view name) {
  for (const Command& command : kCommands) {
    if (command.name == name) {
      return &command;
    }
  }
  return nullptr;
}

std::string usageLine(const Command& command) {
  return fmt::format("usage: ambrant {}{}{}\n", command.name, command.synopsis.empty() ? "" : " ",
                     command.synopsis);
}

void printOverview(std::ostream& out) {
  out << "usage: ambrant COMMAND [ARGUMENT ...] [--timeout SECONDS]\n"
         "       ambrant help [COMMAND]\n"
         "       ambrant --version\n\n"
         "The administration client of Kestrin agents. Commands:\n";
  for (const Command& command : kCommands) {
    out << fmt::format("  {:<17} {}\n", command.name, command.summary);
  }
  out << "\n" << kCommonOptions << "\n" << kExitStatuses;
}

void printHelp(std::ostream& out, const Command& command) {
  out << usageLine(command) << "\n"
      << command.summary << ".\n"
      << command.details << "\n"
      << kCommonOptions << "\n"
      << kExitStatuses;
}

int help(const std::vector<std::string>& topics) {
  if (topics.empty()) {
    printOverview(std::cout);
    return kExitOk;
  }
  const Command* command = findCommand(topics[0]);
  if (command == nullptr || topics.size() > 1) {
    std::cerr << "ambrant: no command '" << topics.back() << "'; \"ambrant help\" lists them\n";
    return kExitUsage;
  }
  printHelp(std::cout, *command);
  return kExitOk;
}

// The time limit every command shares, taken out of the arguments wherever it stands.
std::optional<std::chrono::milliseconds> takeTimeout(std::vector<std::string>& arguments) {
  CommandLine shared(arguments, {}, false);
  auto seconds = shared.seconds("--timeout");
  if (!seconds) {
    return std::nullopt;
  }
  for (auto it = arguments.begin(); it != arguments.end(); ++it) {
    if (*it == "--timeout") {
      arguments.erase(it, it + 2);
      break;
    }
  }
  return std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
}

} // namespace

int ambrantMain(const std::vector<std::string>& arguments) {
  std::signal(SIGPIPE, SIG_IGN);
  if (arguments.empty()) {
    printOverview(std::cerr);
    return kExitUsage;
  }
  const std::string& name = arguments[0];
  std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
  if (name == "--version") {
    std::cout << "ambrant " << KESTRIN_VERSION << std::endl;
    return kExitOk;
  }
  if (name == "help" || name == "--help" || name == "-h") {
    return help(rest);
  }
  const Command* command = findCommand(name);
  if (command == nullptr) {
    std::cerr << "ambrant: unknown command '" << name << "'\n\n";
    printOverview(std::cerr);
    return kExitUsage;
  }
  if (std::find(rest.begin(), rest.end(), "--help") != rest.end()) {
    printHelp(std::cout, *command);
    return kExitOk;
  }
  try {
    auto timeout = takeTimeout(rest);
    CommandLine line(std::move(rest), timeout.value_or(std::chrono::seconds(30)),
                     timeout.has_value());
    return command->run(line);
  } catch (const UsageError& error) {
    std::cerr << "ambrant " << command->name << ": " << error.what() << "\n"
              << usageLine(*command) << "(\"ambrant help " << command->name << "\" says more)"
              << std::endl;
    return kExitUsage;
  } catch (const CommandFailure& failure) {
    std::cerr << "ambrant: " << failure.what() << std::endl;
    return failure.status();
  }
}

} // namespace kestrin::admin
