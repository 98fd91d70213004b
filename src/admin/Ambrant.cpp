#include "admin/Ambrant.h"

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
#include "admin/BackupCommands.h"
#include "admin/ConfigurationReceiver.h"
#include "admin/JsonValue.h"
#include "admin/PasswordPrompt.h"
#include "admin/PluginCommands.h"
#include "admin/PrintingDelegate.h"
#include "admin/SavedLogs.h"
#include "foundation/QVEncryption.h"
#include "platform/ServiceBrowser.h"
#include "plist/PropertyList.h"
#include "support/NamedException.h"

namespace kestrin::admin {

namespace {

using namespace std::chrono_literals;

constexpr int kOk = 0;
constexpr int kAgentError = 1;
constexpr int kUnreachable = 2;

constexpr const char* kUsage =
    "usage: ambrant browse [--timeout SECONDS]\n"
    "       ambrant call HOST:PORT SELECTOR [ARG ...] [--xml] [--linger SECONDS]\n"
    "                  [--user NAME [--password-stdin]]\n"
    "       ambrant watch HOST:PORT\n"
    "       ambrant config HOST:PORT [--xml]\n"
    "       ambrant plugins HOST:PORT\n"
    "       ambrant copy-plugin FROM:PORT TO:PORT PATH\n"
    "       ambrant logs HOST:PORT DIR\n"
    "       ambrant encrypt-password\n"
    "       ambrant backup HOST:PORT PATH FILE\n"
    "       ambrant restore HOST:PORT FILE\n"
    "ARG is a JSON value; {\"$data\":\"<base64>\"} is data, {\"$date\":\"<ISO 8601>\"} a date,\n"
    "{\"$delegate\":{}} a local object that prints every call it gets on standard error.\n"
    "With --user, {\"$user\":null} is NAME, {\"$password\":null} the password encrypted for\n"
    "the agent and {\"$credentials\":null} both as {\"authUser\", \"authPass\"}; the password\n"
    "is asked for on the terminal without echo, or read as one line from standard input.\n";

// What --user stands in for in a call's arguments.
constexpr std::string_view kUserPlaceholder = "$user";
constexpr std::string_view kPasswordPlaceholder = "$password";
constexpr std::string_view kCredentialsPlaceholder = "$credentials";

// Prints every event an agent pushes, one line each, on standard error.
class EventPrinter : public QVErrorCallback::Parent {
public:
  void postLocalNotification(const std::string& name) override { print(name, ""); }
  void serviceEvent(const std::string& selector,
                    const std::vector<plist::Value>& arguments) override {
    print(selector, jsonFromValue(plist::Value(plist::Array(arguments.begin(), arguments.end()))));
  }
  void print(const std::string& what, const std::string& detail) {
    std::lock_guard lock(mutex_);
    std::cerr << "event " << what << (detail.empty() ? "" : " ") << detail << std::endl;
  }

private:
  std::mutex mutex_;
};

// Prints queue entries as they arrive, after the callback has dropped duplicates.
class QueuePrinter : public EventPrinter {
public:
  void setCallback(const QVErrorCallback* callback) { callback_ = callback; }
  void postLocalNotification(const std::string& name) override {
    if (name == "QVAmbrantErrorLabelRefresh" && callback_ != nullptr) {
      plist::Array queue = callback_->errorQueue();
      if (!queue.empty()) {
        print("error", jsonFromValue(queue.front()));
      }
      return;
    }
    EventPrinter::postLocalNotification(name);
  }

private:
  const QVErrorCallback* callback_ = nullptr;
};

std::optional<double> optionValue(std::vector<std::string>& arguments, const std::string& name) {
  for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
    if (arguments[i] == name) {
      double value = std::stod(arguments[i + 1]);
      arguments.erase(arguments.begin() + static_cast<long>(i),
                      arguments.begin() + static_cast<long>(i) + 2);
      return value;
    }
  }
  return std::nullopt;
}

std::optional<std::string> optionText(std::vector<std::string>& arguments,
                                      const std::string& name) {
  for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
    if (arguments[i] == name) {
      std::string value = arguments[i + 1];
      arguments.erase(arguments.begin() + static_cast<long>(i),
                      arguments.begin() + static_cast<long>(i) + 2);
      return value;
    }
  }
  return std::nullopt;
}

bool takeFlag(std::vector<std::string>& arguments, const std::string& name) {
  for (auto it = arguments.begin(); it != arguments.end(); ++it) {
    if (*it == name) {
      arguments.erase(it);
      return true;
    }
  }
  return false;
}

struct Session {
  QueuePrinter printer;
  std::unique_ptr<AdminClient> client;
};

Expected<std::unique_ptr<Session>> openSession(const std::string& where) {
  auto address = parseAgentAddress(where);
  if (!address) {
    return address.failure();
  }
  auto session = std::make_unique<Session>();
  auto client = AdminClient::connect(*address, 10s, &session->printer);
  if (!client) {
    return client.failure();
  }
  session->client = std::move(*client);
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

// The placeholder a value is, if it is one: a dictionary whose one key names it.
std::optional<std::string_view> placeholderOf(const plist::Value& value) {
  const plist::Dictionary* dictionary = value.asDictionary();
  if (dictionary == nullptr || dictionary->size() != 1) {
    return std::nullopt;
  }
  for (std::string_view name : {kUserPlaceholder, kPasswordPlaceholder, kCredentialsPlaceholder}) {
    if (dictionary->contains(name)) {
      return name;
    }
  }
  return std::nullopt;
}

// Replaces the placeholders in `value` and below; answers how many there were. `credentials`
// makes the replacements, asking for the password at most once.
int replacePlaceholders(plist::Value& value,
                        const std::function<plist::Value(std::string_view)>& credentials) {
  if (auto placeholder = placeholderOf(value)) {
    value = credentials(*placeholder);
    return 1;
  }
  int count = 0;
  if (plist::Array* array = value.asArray()) {
    for (plist::Value& element : *array) {
      count += replacePlaceholders(element, credentials);
    }
  } else if (plist::Dictionary* dictionary = value.asDictionary()) {
    plist::Dictionary replaced;
    for (const auto& [key, element] : *dictionary) {
      plist::Value copy = element;
      count += replacePlaceholders(copy, credentials);
      replaced.set(key, std::move(copy));
    }
    *dictionary = std::move(replaced);
  }
  return count;
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
    if (placeholder == kPasswordPlaceholder) {
      return *encrypted;
    }
    return plist::Dictionary{{"authUser", *user}, {"authPass", *encrypted}};
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

int call(std::vector<std::string> arguments) {
  bool xml = takeFlag(arguments, "--xml");
  double linger = optionValue(arguments, "--linger").value_or(0);
  std::optional<std::string> user = optionText(arguments, "--user");
  bool passwordFromStdin = takeFlag(arguments, "--password-stdin");
  if (arguments.size() < 2 || (passwordFromStdin && !user)) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  std::vector<std::shared_ptr<PrintingDelegate>> delegates;
  auto makeDelegate = [&delegates]() -> plist::ObjectRef {
    return delegates.emplace_back(std::make_shared<PrintingDelegate>(std::cerr));
  };
  std::vector<plist::Value> values;
  for (std::size_t i = 2; i < arguments.size(); ++i) {
    auto value = valueFromJson(arguments[i], makeDelegate);
    if (!value) {
      std::cerr << "ambrant: argument " << i - 1 << ": " << value.message() << std::endl;
      return kUnreachable;
    }
    values.push_back(std::move(*value));
  }
  if (auto filled = fillCredentials(values, user, passwordFromStdin); !filled) {
    std::cerr << "ambrant: " << filled.message() << std::endl;
    return kUnreachable;
  }
  auto session = openSession(arguments[0]);
  if (!session) {
    std::cerr << "ambrant: " << session.message() << std::endl;
    return kUnreachable;
  }
  int status = kOk;
  try {
    printValue((*session)->client->call(arguments[1], std::move(values)), xml);
  } catch (const NamedException& e) {
    std::cerr << "ambrant: " << e.name() << ": " << e.what() << std::endl;
    status = e.name() == kInvalidSendPortException ? kUnreachable : kAgentError;
  }
  // Deliveries to delegates and events may follow the answer; a closed connection brings none.
  auto end = std::chrono::steady_clock::now() +
             std::chrono::milliseconds(static_cast<long>(std::max(linger, 0.0) * 1000));
  while (std::chrono::steady_clock::now() < end && (*session)->client->connection().isConnected()) {
    std::this_thread::sleep_for(20ms);
  }
  return status;
}

// Saves what gatherLogs answers into DIR, one file per path, and prints a line per file saved.
int logs(const std::vector<std::string>& arguments) {
  if (arguments.size() != 2) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  auto session = openSession(arguments[0]);
  if (!session) {
    std::cerr << "ambrant: " << session.message() << std::endl;
    return kUnreachable;
  }
  plist::Value gathered;
  try {
    gathered = (*session)->client->call("gatherLogs");
  } catch (const NamedException& e) {
    std::cerr << "ambrant: " << e.name() << ": " << e.what() << std::endl;
    return e.name() == kInvalidSendPortException ? kUnreachable : kAgentError;
  }
  if (gathered.isNull()) {
    std::cerr << "ambrant: the agent has no logs" << std::endl;
    return kOk;
  }
  const plist::Dictionary* found = gathered.asDictionary();
  if (found == nullptr) {
    std::cerr << "ambrant: the agent answered " << plist::kindName(gathered.kind())
              << ", not a dictionary of logs" << std::endl;
    return kAgentError;
  }
  auto report = saveLogs(
      arguments[1], *found,
      [](const std::string& path, const std::string& file, std::size_t bytes) {
        std::cout << file << " (" << bytes << " bytes) from " << jsonFromValue(path) << std::endl;
      },
      [](const std::string& path, const std::string& why) {
        std::cerr << "ambrant: not saved: " << jsonFromValue(path) << ": " << why << std::endl;
      });
  if (!report) {
    std::cerr << "ambrant: " << report.message() << std::endl;
    return kUnreachable;
  }
  return report->skipped == 0 ? kOk : kAgentError;
}

// The full configuration the agent sends to a receiver of ours, as an admin sees it on first
// connecting.
int config(std::vector<std::string> arguments) {
  bool xml = takeFlag(arguments, "--xml");
  if (arguments.size() != 1) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  auto session = openSession(arguments[0]);
  if (!session) {
    std::cerr << "ambrant: " << session.message() << std::endl;
    return kUnreachable;
  }
  auto receiver = std::make_shared<ConfigurationReceiver>();
  try {
    (*session)->client->call("fetchInitialConfiguration:", {plist::ObjectRef(receiver)});
  } catch (const NamedException& e) {
    std::cerr << "ambrant: " << e.name() << ": " << e.what() << std::endl;
    return e.name() == kInvalidSendPortException ? kUnreachable : kAgentError;
  }
  auto configuration = receiver->waitForConfiguration(10s);
  if (!configuration) {
    std::cerr << "ambrant: the agent sent no configuration" << std::endl;
    return kAgentError;
  }
  printValue(*configuration, xml);
  return kOk;
}

int watch(const std::vector<std::string>& arguments) {
  if (arguments.size() != 1) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr); // before any thread: only sigwait sees them

  auto session = openSession(arguments[0]);
  if (!session) {
    std::cerr << "ambrant: " << session.message() << std::endl;
    return kUnreachable;
  }
  (*session)->client->connection().setDisconnectHandler([] {
    std::cerr << "ambrant: the agent closed the connection" << std::endl;
    std::raise(SIGTERM);
  });
  std::cerr << "watching " << arguments[0] << std::endl;
  int signal = 0;
  sigwait(&stop, &signal);
  return (*session)->client->connection().isConnected() ? kOk : kUnreachable;
}

// The "authPass" data for a password read from standard input (one line; its line end is not
// part of the password), without echo when that is a terminal.
int encryptPassword() {
  auto password = readPasswordLine(STDIN_FILENO);
  if (!password) {
    std::cerr << "ambrant: " << password.message() << std::endl;
    return kUnreachable;
  }
  std::cout << base64Encode(QVEncryption::encryptPassword(password->view())) << std::endl;
  return kOk;
}

int browse(std::vector<std::string> arguments) {
  double timeout = optionValue(arguments, "--timeout").value_or(3.0);
  if (!arguments.empty()) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  auto found = platform::browseServices(
      "_kestrin._tcp.", std::chrono::milliseconds(static_cast<long>(timeout * 1000)));
  if (!found) {
    std::cerr << "ambrant: " << found.message() << std::endl;
    return kUnreachable;
  }
  for (const platform::FoundService& service : *found) {
    std::cout << service.name << "\t" << service.host << "\t" << service.port;
    for (const auto& [key, value] : service.txt) {
      std::cout << "\t" << key << "=" << value;
    }
    std::cout << std::endl;
  }
  return kOk;
}

} // namespace

int ambrantMain(const std::vector<std::string>& arguments) {
  std::signal(SIGPIPE, SIG_IGN);
  if (arguments.empty()) {
    std::cerr << kUsage;
    return kUnreachable;
  }
  std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
  const std::string& command = arguments[0];
  try {
    if (command == "call") {
      return call(rest);
    }
    if (command == "logs") {
      return logs(rest);
    }
    if (command == "config") {
      return config(rest);
    }
    if (command == "watch") {
      return watch(rest);
    }
    if (command == "plugins") {
      return pluginsCommand(rest);
    }
    if (command == "copy-plugin") {
      return copyPluginCommand(rest);
    }
    if (command == "browse") {
      return browse(rest);
    }
    if (command == "encrypt-password") {
      return encryptPassword();
    }
    if (command == "backup") {
      return backupCommand(rest, std::cout);
    }
    if (command == "restore") {
      return restoreCommand(rest, std::cout);
    }
  } catch (const std::invalid_argument&) {
    std::cerr << "ambrant: an option's value is not a number" << std::endl;
    return kUnreachable;
  }
  std::cerr << kUsage;
  return kUnreachable;
}

} // namespace kestrin::admin
