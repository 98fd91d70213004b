#include "admin/EventPrinter.h"

#include "admin/JsonValue.h"

namespace kestrin::admin {

std::mutex& outputLock() {
  static std::mutex lock;
  return lock;
}

EventPrinter::EventPrinter(std::ostream& out, std::string tag) : out_(out), tag_(std::move(tag)) {}

void EventPrinter::postLocalNotification(const std::string& name) {
  const QVErrorCallback* callback = callback_.load();
  if (name == "QVAmbrantErrorLabelRefresh" && callback != nullptr) {
    plist::Array queue = callback->errorQueue();
    if (!queue.empty()) {
      print("error", jsonFromValue(queue.front()));
    }
    return;
  }
  print(name, "");
}

void EventPrinter::serviceEvent(const std::string& selector,
                                const std::vector<plist::Value>& arguments) {
  print(selector, jsonFromValue(plist::Value(plist::Array(arguments.begin(), arguments.end()))));
}

void EventPrinter::print(const std::string& what, const std::string& detail) {
  std::lock_guard lock(outputLock());
  out_ << tag_ << (tag_.empty() ? "" : " ") << "event " << what << (detail.empty() ? "" : " ")
       << detail << std::endl;
}

} // namespace kestrin::admin
