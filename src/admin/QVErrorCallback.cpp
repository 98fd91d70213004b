#include "admin/QVErrorCallback.h"

#include <set>

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::admin {

namespace {

constexpr const char* kDomain = "ambrantDomain";
constexpr const char* kUnknownError =
    "Unknown error. Please check error logs on the local machine.";

std::string stringOr(const plist::Value* value, const std::string& fallback = {}) {
  return value && value->asString() ? *value->asString() : fallback;
}

std::optional<std::string> optionalString(const plist::Value& dictionary, std::string_view key) {
  const plist::Value* value = dictionary.get(key);
  if (value && value->asString()) {
    return *value->asString();
  }
  return std::nullopt;
}

const std::set<std::string>& queueSelectors() {
  static const std::set<std::string> selectors = {
      "addErrorToQueue:hostname:", "addErrorToQueue:userInfo:", "addStringToQueue:hostname:",
      "addStringToQueue:userInfo:", "addExceptionToQueue:hostname:"};
  return selectors;
}

const std::set<std::string>& serviceSelectors() {
  static const std::set<std::string> selectors = {
      "willDisconnect:",        "updateConfig:",      "forceConfigReload:",
      "requestMaintenance:",    "cancelMaintenance:", "setSoftwareUpdateCount:hostname:",
      "tovellAddLogs:hostName:"};
  return selectors;
}

const std::set<std::string>& quietSelectors() {
  static const std::set<std::string> selectors = {"ping", "cancelProcessing", "incrementProgress",
                                                  "taskFinished"};
  return selectors;
}

} // namespace

QVErrorCallback::QVErrorCallback(Parent* parent, std::function<plist::Date()> now)
    : parent_(parent), now_(std::move(now)) {}

std::optional<std::string> QVErrorCallback::descriptionForError(const plist::ErrorRecord& error) {
  if (error.domain != kDomain) {
    std::string described = stringOr(error.userInfo.find("NSLocalizedDescription"));
    if (described.empty()) {
      described = fmt::format("Error Domain={} Code={}", error.domain, error.code);
    }
    return described;
  }
  std::string info = stringOr(error.userInfo.find("info"), "(null)");
  switch (error.code) {
  case 0:
    return std::nullopt;
  case 1000:
    return fmt::format("Application {} not found.", info);
  case 1001:
    return fmt::format("Could not find Info.plist file for application {} not found.", info);
  case 1002:
    return fmt::format("Application {} is outdated. Please update this application.", info);
  case 1003:
    return fmt::format("Task not found for application {}. Please update this application.", info);
  case 1005:
    return std::string(
        "The task was canceled because the destination computer was too busy. Switch off this "
        "setting in the application's preferences in order to prevent this in the future.");
  case 1006:
    return std::string("Incorrect username or password.");
  case 2001:
    return std::string("Ambrant is not installed properly or the version you are using is "
                       "outdated. Please install a recent version of Ambrant on this computer.");
  case 2006:
    return std::string(
        "Kestrin is outdated on this machine. Please install a more recent version.");
  case 2007:
    return std::string(
        "Ambrant is outdated on this machine. Please install a more recent version.");
  case 2008:
    return std::string("Connection timed out. Please make sure that you have the latest version "
                       "of the client software.");
  default:
    return std::string(kUnknownError);
  }
}

int QVErrorCallback::actionType(std::int64_t code) {
  switch (code) {
  case 1000:
  case 1001:
  case 1002:
  case 1003:
  case 2001:
  case 2006:
  case 2007:
    return 1;
  default:
    return 0;
  }
}

void QVErrorCallback::insert(plist::Dictionary entry, const std::vector<std::string>& sameKeys) {
  plist::Date now = now_();
  {
    std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < errorQueue_.size() && i < 2; ++i) {
      const plist::Value& older = errorQueue_[i];
      bool same = true;
      for (const std::string& key : sameKeys) {
        const plist::Value* a = older.get(key);
        const plist::Value* b = entry.find(key);
        same = same && ((a == nullptr && b == nullptr) || (a && b && *a == *b));
      }
      auto date = older.get("date") ? older.get("date")->asDate() : std::nullopt;
      if (same && date && date->seconds - now.seconds > -kDuplicateWindowSeconds) {
        return;
      }
    }
    entry.set("date", now); // keeps the documented key order but after the comparison
    plist::Array grown;
    grown.reserve(errorQueue_.size() + 1);
    grown.push_back(std::move(entry));
    grown.insert(grown.end(), errorQueue_.begin(), errorQueue_.end());
    errorQueue_ = std::move(grown);
  }
  if (parent_) {
    parent_->postLocalNotification("QVAmbrantErrorLabelRefresh");
  }
}

void QVErrorCallback::enqueueError(const plist::ErrorRecord& error, const std::string& hostname,
                                   const std::optional<std::string>& appName) {
  if (error.domain == kDomain && error.code == 1006 && parent_) {
    parent_->removeStoredPasswordForHost(hostname);
  }
  plist::Dictionary entry;
  std::optional<std::string> text = descriptionForError(error);
  entry.set("description", text ? plist::Value(*text) : plist::Value());
  entry.set("date", plist::Value());
  entry.set("hostname", hostname);
  entry.set("errorcode", error.code);
  entry.set("actionType", actionType(error.code));
  std::vector<std::string> sameKeys = {"errorcode", "hostname"};
  if (appName) {
    entry.set("appName", *appName);
    sameKeys.push_back("appName");
  }
  insert(std::move(entry), sameKeys);
}

void QVErrorCallback::enqueueString(const std::string& message, const std::string& hostname,
                                    const std::optional<std::string>& appName) {
  plist::Dictionary entry{
      {"description", message}, {"date", plist::Value()}, {"hostname", hostname}};
  std::vector<std::string> sameKeys = {"description", "hostname"};
  if (appName) {
    entry.set("appName", *appName);
    sameKeys.push_back("appName");
  }
  insert(std::move(entry), sameKeys);
}

void QVErrorCallback::addErrorToQueue(const plist::ErrorRecord& error,
                                      const std::string& hostname) {
  enqueueError(error, hostname, std::nullopt);
}

void QVErrorCallback::addErrorToQueueUserInfo(const plist::ErrorRecord& error,
                                              const plist::Value& userInfo) {
  enqueueError(error, optionalString(userInfo, "hostname").value_or(""),
               optionalString(userInfo, "appName"));
}

void QVErrorCallback::addStringToQueue(const std::string& message, const std::string& hostname) {
  enqueueString(message, hostname, std::nullopt);
}

void QVErrorCallback::addStringToQueueUserInfo(const std::string& message,
                                               const plist::Value& userInfo) {
  enqueueString(message, optionalString(userInfo, "hostname").value_or(""),
                optionalString(userInfo, "appName"));
}

void QVErrorCallback::addExceptionToQueue(const plist::Value& exception,
                                          const std::string& hostname) {
  std::string text = exception.asString() ? *exception.asString() : plist::describe(exception);
  enqueueString(text, hostname, std::nullopt);
}

plist::Array QVErrorCallback::errorQueue() const {
  std::lock_guard lock(mutex_);
  return errorQueue_;
}

void QVErrorCallback::clearErrorQueue() {
  std::lock_guard lock(mutex_);
  errorQueue_.clear();
}

void QVErrorCallback::removeErrorsForHost(const std::string& hostname) {
  {
    std::lock_guard lock(mutex_);
    plist::Array kept;
    for (const plist::Value& entry : errorQueue_) {
      if (stringOr(entry.get("hostname")) != hostname) {
        kept.push_back(entry);
      }
    }
    errorQueue_ = std::move(kept);
  }
  if (parent_) {
    parent_->postLocalNotification("QVAmbrantErrorLabelRefresh");
  }
}

std::string QVErrorCallback::stringRepresentation() const {
  std::string text;
  for (const plist::Value& entry : errorQueue()) {
    const plist::Value* date = entry.get("date");
    text += fmt::format("{} - {} - {}\n", stringOr(entry.get("hostname"), "(null)"),
                        date && date->asDate() ? date->asDate()->description() : "(null)",
                        stringOr(entry.get("description"), "(null)"));
  }
  return text;
}

bool QVErrorCallback::respondsTo(const std::string& selector) {
  return queueSelectors().count(selector) || serviceSelectors().count(selector) ||
         quietSelectors().count(selector);
}

plist::Value QVErrorCallback::invoke(const std::string& selector,
                                     std::vector<plist::Value> arguments) {
  if (!respondsTo(selector)) {
    throw ArgumentError(fmt::format("QVErrorCallback does not respond to selector {}", selector));
  }
  auto argument = [&](std::size_t i) -> const plist::Value& {
    static const plist::Value null;
    return i < arguments.size() ? arguments[i] : null;
  };
  auto text = [&](std::size_t i) {
    const plist::Value& v = argument(i);
    return v.asString() ? *v.asString() : plist::describe(v);
  };
  auto error = [&]() {
    const plist::ErrorRecord* e = argument(0).asError();
    if (e == nullptr) {
      throw ArgumentError(fmt::format("argument 1 of {} must be an error", selector));
    }
    return *e;
  };

  if (selector == "addErrorToQueue:hostname:") {
    addErrorToQueue(error(), text(1));
  } else if (selector == "addErrorToQueue:userInfo:") {
    addErrorToQueueUserInfo(error(), argument(1));
  } else if (selector == "addStringToQueue:hostname:") {
    addStringToQueue(text(0), text(1));
  } else if (selector == "addStringToQueue:userInfo:") {
    addStringToQueueUserInfo(text(0), argument(1));
  } else if (selector == "addExceptionToQueue:hostname:") {
    addExceptionToQueue(argument(0), text(1));
  } else if (selector == "incrementProgress") {
    if (parent_) {
      parent_->postLocalNotification("QVAmbrantProgressIncrement");
    }
  } else if (selector == "taskFinished") {
    if (parent_) {
      parent_->postLocalNotification("QVAmbrantTaskFinished");
    }
  } else if (serviceSelectors().count(selector) && parent_) {
    parent_->serviceEvent(selector, arguments);
  }
  return {};
}

} // namespace kestrin::admin
