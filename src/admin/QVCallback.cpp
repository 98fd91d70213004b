#include "admin/QVCallback.h"

#include "support/NamedException.h"

namespace kestrin::admin {

std::shared_ptr<QVCallback> QVCallback::callbackWithName(std::string name, Delegate delegate,
                                                         std::optional<std::string> hostname) {
  return std::shared_ptr<QVCallback>(
      new QVCallback(std::move(name), std::move(delegate), std::move(hostname)));
}

plist::Dictionary QVCallback::info() const {
  std::lock_guard lock(mutex_);
  return info_;
}

void QVCallback::postCallback(const plist::Dictionary& info) {
  {
    std::lock_guard lock(mutex_);
    info_ = info;
  }
  if (delegate_) {
    delegate_(*this);
  }
}

bool QVCallback::respondsTo(const std::string& selector) {
  return selector == "postCallback:" || selector == "name" || selector == "hostname" ||
         selector == "info";
}

plist::Value QVCallback::invoke(const std::string& selector, std::vector<plist::Value> arguments) {
  if (selector == "postCallback:") {
    const plist::Dictionary* info = arguments.empty() ? nullptr : arguments[0].asDictionary();
    postCallback(info ? *info : plist::Dictionary());
    return {};
  }
  if (selector == "name") {
    return name_;
  }
  if (selector == "hostname") {
    return hostname_ ? plist::Value(*hostname_) : plist::Value();
  }
  if (selector == "info") {
    return info();
  }
  throw ArgumentError("QVCallback does not respond to selector " + selector);
}

} // namespace kestrin::admin
