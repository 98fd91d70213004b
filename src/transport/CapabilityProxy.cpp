#include "transport/CapabilityProxy.h"

#include <atomic>
#include <optional>

#include <fmt/format.h>

#include "support/NamedException.h"
#include "transport/ConnectionState.h"
#include "transport/ValueCodec.h"

namespace kestrin::transport {

namespace {

constexpr const char* kReceiveException = "NSPortReceiveException";

[[noreturn]] void throwGone() {
  throw NamedException(std::string(kInvalidSendPortException),
                       "the connection to the remote object is gone");
}

// Runs the call on the loop thread and turns the transport's failures into the named
// exceptions that the controller's convention understands.
//
// KJ hands the finished call back through futexes that ThreadSanitizer cannot see, so the
// answer written on the loop thread is also published through an atomic of our own; without
// it every byte of a large answer reads as a race.
template <typename Func> void onLoop(ConnectionState& state, Func&& func) {
  std::atomic<bool> published{false};
  auto publish = [&published] { published.store(true, std::memory_order_release); };
  try {
    state.executor->executeSync([&]() -> kj::Promise<void> {
      return kj::evalNow(kj::fwd<Func>(func))
          .then([publish]() { publish(); },
                [publish](kj::Exception&& e) {
                  publish();
                  kj::throwFatalException(kj::mv(e));
                });
    });
    (void)published.load(std::memory_order_acquire);
  } catch (const kj::Exception& e) {
    (void)published.load(std::memory_order_acquire);
    if (e.getType() == kj::Exception::Type::DISCONNECTED || !state.alive) {
      throwGone();
    }
    if (e.getType() == kj::Exception::Type::OVERLOADED) {
      throw NamedException(std::string(kBusyException), std::string(e.getDescription().cStr()));
    }
    throw NamedException(kReceiveException, std::string(e.getDescription().cStr()));
  }
}

// Resolves when the answer arrives or, with a reply limit, when the limit passes first; the
// caller then finds timedOut set. The late answer is dropped with the abandoned request.
kj::Promise<void> withReplyLimit(ConnectionState& state, kj::Promise<void> answered,
                                 bool& timedOut) {
  std::int64_t limit = state.replyTimeoutMs;
  if (limit <= 0) {
    return answered;
  }
  return answered.exclusiveJoin(
      state.timer->afterDelay(limit * kj::MILLISECONDS).then([&timedOut]() { timedOut = true; }));
}

} // namespace

CapabilityProxy::~CapabilityProxy() {
  auto release = [state = state_.get(), id = id_, hook = hook_] {
    state->imports.erase(id);
    auto found = state->proxiesByHook.find(hook);
    if (found != state->proxiesByHook.end() && found->second.expired()) {
      state->proxiesByHook.erase(found);
    }
  };
  if (state_->onLoopThread()) {
    release();
    return;
  }
  if (!state_->alive) {
    return; // the loop dropped everything already
  }
  try {
    state_->executor->executeSync(release);
  } catch (const kj::Exception&) {
    // The loop ended meanwhile and took the entry with it.
  }
}

std::string CapabilityProxy::description() const {
  return fmt::format("<remote object {}>", id_);
}

void CapabilityProxy::checkCallable() const {
  if (!state_->alive) {
    throwGone();
  }
  if (state_->onLoopThread()) {
    // The answer could only arrive on this very thread, which would be waiting for it.
    throw NamedException("NSInternalInconsistencyException",
                         "a remote object was called on its own connection's thread");
  }
}

plist::Value CapabilityProxy::invoke(const std::string& selector,
                                     std::vector<plist::Value> arguments) {
  checkCallable();
  checkSendable(arguments);
  plist::Value result;
  std::optional<std::pair<std::string, std::string>> raised;
  bool timedOut = false;
  ConnectionState& state = *state_;
  onLoop(state, [&]() -> kj::Promise<void> {
    auto found = state.imports.find(id_);
    if (found == state.imports.end()) {
      return KJ_EXCEPTION(DISCONNECTED, "remote object released");
    }
    auto request = found->second.invokeRequest();
    request.setSelector(selector);
    auto list = request.initArguments(static_cast<unsigned>(arguments.size()));
    for (unsigned i = 0; i < arguments.size(); ++i) {
      encodeValue(arguments[i], list[i], state);
    }
    auto answered = request.send().then([&](capnp::Response<wire::RemoteObject::InvokeResults> r) {
      try {
        DecodeBudget budget = DecodeBudget::forAnswer(state);
        result = decodeValue(r.getResult(), state, budget);
      } catch (const NamedException& e) {
        raised.emplace(e.name(), e.what());
        return;
      }
      if (r.hasRaised() && r.getRaised().getName().size() > 0) {
        raised.emplace(r.getRaised().getName().cStr(), r.getRaised().getReason().cStr());
      }
    });
    return withReplyLimit(state, kj::mv(answered), timedOut);
  });
  if (timedOut) {
    throw PortTimeoutException(fmt::format("no reply to {} within the time limit", selector));
  }
  if (raised) {
    throw NamedException(raised->first, raised->second);
  }
  return result;
}

bool CapabilityProxy::respondsTo(const std::string& selector) {
  checkCallable();
  {
    std::lock_guard lock(respondsMutex_);
    auto known = responds_.find(selector);
    if (known != responds_.end()) {
      return known->second;
    }
  }
  bool responds = false;
  bool timedOut = false;
  ConnectionState& state = *state_;
  onLoop(state, [&]() -> kj::Promise<void> {
    auto found = state.imports.find(id_);
    if (found == state.imports.end()) {
      return KJ_EXCEPTION(DISCONNECTED, "remote object released");
    }
    auto request = found->second.respondsToRequest();
    request.setSelector(selector);
    auto answered =
        request.send().then([&](capnp::Response<wire::RemoteObject::RespondsToResults> r) {
          responds = r.getResponds();
        });
    return withReplyLimit(state, kj::mv(answered), timedOut);
  });
  if (timedOut) {
    throw PortTimeoutException(
        fmt::format("no reply to respondsTo {} within the time limit", selector));
  }
  std::lock_guard lock(respondsMutex_);
  responds_[selector] = responds;
  return responds;
}

} // namespace kestrin::transport
