#include "app/QVErrorCallbackObj.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

#include "app/MainLoop.h"
#include "support/NamedException.h"

namespace kestrin {

namespace {

constexpr std::array<std::pair<const char*, const char*>, 7> kForwarded = {{
    {"incrementRemoteProgress", "incrementRemoteProgress"},
    {"postFinishedTask", "postFinishedTask"},
    {"postError:", "postError:"},
    {"postErrorString:", "postErrorString:"},
    {"postError:userInfo:", "postError:userInfo:"},
    {"postErrorString:userInfo:", "postErrorString:userInfo:"},
    {"postDisconnect", "disconnect"},
}};

} // namespace

const char* QVErrorCallbackObj::delegateSelector(const std::string& selector) {
  for (const auto& [ours, theirs] : kForwarded) {
    if (selector == ours) {
      return theirs;
    }
  }
  return nullptr;
}

bool QVErrorCallbackObj::respondsTo(const std::string& selector) {
  return delegateSelector(selector) != nullptr;
}

plist::Value QVErrorCallbackObj::invoke(const std::string& selector,
                                        std::vector<plist::Value> arguments) {
  const char* forwarded = delegateSelector(selector);
  if (forwarded == nullptr) {
    throw ArgumentError(
        fmt::format("QVErrorCallbackObj does not respond to selector {}", selector));
  }
  std::shared_ptr<plist::RemoteObject> delegate = delegate_.lock();
  if (!delegate || !delegate->respondsTo(forwarded)) {
    return {};
  }
  std::size_t expected =
      static_cast<std::size_t>(std::count(selector.begin(), selector.end(), ':'));
  arguments.resize(expected); // missing arguments arrive as nil, as an invocation leaves them
  mainLoop_.runOnMainThreadAndWait([&] { delegate->invoke(forwarded, std::move(arguments)); });
  return {};
}

} // namespace kestrin
