#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "plist/Value.h"

namespace kestrin::admin {

// The admin side of the error channel: the object an administration application registers with
// each agent (setErrorCallback:). It keeps the queue of errors that agents report, newest
// first, drops a repeat of either of the two newest entries within two minutes, and hands every
// other event to its parent.
//
// Agents call it from their connections' threads; the queue is replaced whole under a mutex.
class QVErrorCallback : public plist::RemoteObject {
public:
  // What the application around the callback provides. Every hook is optional.
  class Parent {
  public:
    virtual ~Parent() = default;
    // A rejected password (code 1006) for this host: forget it.
    virtual void removeStoredPasswordForHost(const std::string& /*host*/) {}
    // "QVAmbrantErrorLabelRefresh", "QVAmbrantProgressIncrement", "QVAmbrantTaskFinished".
    virtual void postLocalNotification(const std::string& /*name*/) {}
    // Every event that is not queued: "willDisconnect:", "updateConfig:", "forceConfigReload:",
    // "requestMaintenance:", "cancelMaintenance:", "setSoftwareUpdateCount:hostname:",
    // "tovellAddLogs:hostName:", with the agent's arguments.
    virtual void serviceEvent(const std::string& /*selector*/,
                              const std::vector<plist::Value>& /*arguments*/) {}
  };

  static constexpr double kDuplicateWindowSeconds = 120.0;

  // parent is not owned and may be null. now is the clock (tests pass their own).
  explicit QVErrorCallback(Parent* parent, std::function<plist::Date()> now = &plist::Date::now);

  // The message for an error; nullopt for code 0 of the agents' domain.
  static std::optional<std::string> descriptionForError(const plist::ErrorRecord& error);
  // 1 for the codes that ask the user to install or update software, else 0.
  static int actionType(std::int64_t code);

  void addErrorToQueue(const plist::ErrorRecord& error, const std::string& hostname);
  void addErrorToQueueUserInfo(const plist::ErrorRecord& error, const plist::Value& userInfo);
  void addStringToQueue(const std::string& message, const std::string& hostname);
  void addStringToQueueUserInfo(const std::string& message, const plist::Value& userInfo);
  void addExceptionToQueue(const plist::Value& exception, const std::string& hostname);

  plist::Array errorQueue() const;
  void clearErrorQueue();
  void removeErrorsForHost(const std::string& hostname);
  // "%@ - %@ - %@\n" (host, date, description) for every entry in queue order.
  std::string stringRepresentation() const;

  // As a remote object: the selectors that agents send.
  std::string description() const override { return "<QVErrorCallback>"; }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string& selector) override;

private:
  struct Entry;
  void enqueueError(const plist::ErrorRecord& error, const std::string& hostname,
                    const std::optional<std::string>& appName);
  void enqueueString(const std::string& message, const std::string& hostname,
                     const std::optional<std::string>& appName);
  // Inserts the entry at the front unless it repeats one of the two newest entries.
  void insert(plist::Dictionary entry, const std::vector<std::string>& sameKeys);

  Parent* parent_;
  std::function<plist::Date()> now_;
  mutable std::mutex mutex_;
  plist::Array errorQueue_;
};

} // namespace kestrin::admin
