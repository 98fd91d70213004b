#include "transport/LocalObjectServer.h"

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <cxxabi.h>
#include <fmt/format.h>

#include "foundation/WorkerPool.h"
#include "support/NamedException.h"
#include "transport/ValueCodec.h"

namespace kestrin::transport {

namespace {

std::atomic<std::size_t> workers{0};

struct Outcome {
  // KJ's cross-thread fulfiller synchronises where ThreadSanitizer cannot see; the worker
  // publishes the outcome through this flag as well so the loop thread's reads are ordered.
  std::atomic<bool> published{false};
  plist::Value result;
  bool raised = false;
  std::string name;
  std::string reason;

  void raise(std::string n, std::string r) {
    raised = true;
    name = std::move(n);
    reason = std::move(r);
  }
};

std::string typeName(const std::exception& e) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
  std::string name = status == 0 && demangled ? demangled : typeid(e).name();
  std::free(demangled);
  return name;
}

// Runs work on a thread of its own and answers its outcome on the calling loop thread.
// The outcome travels on the heap: a value with strings inside kj's cross-thread Maybe trips
// g++ 12's uninitialised-use warning.
using OutcomePtr = kj::Own<Outcome>;

template <typename Work> kj::Promise<OutcomePtr> onWorker(WorkerPool& pool, Work work) {
  auto paf = kj::newPromiseAndCrossThreadFulfiller<OutcomePtr>();
  // std::thread needs a copyable callable; the fulfiller is shared to get one.
  auto fulfiller =
      std::make_shared<kj::Own<kj::CrossThreadPromiseFulfiller<OutcomePtr>>>(kj::mv(paf.fulfiller));
  ++workers;
  bool queued = pool.submit([work = std::move(work), fulfiller]() mutable {
    auto outcome = kj::heap<Outcome>();
    try {
      outcome->result = work();
    } catch (const NamedException& e) {
      outcome->raise(e.name(), e.what());
    } catch (const std::exception& e) {
      outcome->raise(typeName(e), e.what());
    } catch (...) {
      outcome->raise("NSGenericException", "unknown exception");
    }
    work = {}; // arguments and their proxies go before the answer does
    outcome->published.store(true, std::memory_order_release);
    (*fulfiller)->fulfill(kj::mv(outcome));
    --workers;
  });
  if (!queued) {
    --workers;
    return KJ_EXCEPTION(DISCONNECTED, "the agent is stopping");
  }
  return paf.promise.then([](OutcomePtr outcome) {
    (void)outcome->published.load(std::memory_order_acquire);
    return outcome;
  });
}

// What a running call holds against its connection and its server. It travels with the call's
// work, so it is given back when the work and its arguments are gone, even when the caller left
// long before: a caller cannot disconnect its way past the budgets.
class CallHold {
public:
  CallHold(const ConnectionState& state, const Amount& charged)
      : connection_(state.held), server_(state.server), charged_(charged) {
    take(*connection_);
    if (server_) {
      take(*server_);
    }
  }
  ~CallHold() {
    giveBack(*connection_);
    if (server_) {
      giveBack(*server_);
    }
  }
  CallHold(const CallHold&) = delete;
  CallHold& operator=(const CallHold&) = delete;

private:
  void take(Holdings& holdings) const {
    ++holdings.calls;
    holdings.values += charged_.values;
    holdings.bytes += charged_.bytes;
  }
  void giveBack(Holdings& holdings) const {
    --holdings.calls;
    holdings.values -= charged_.values;
    holdings.bytes -= charged_.bytes;
  }

  std::shared_ptr<Holdings> connection_;
  std::shared_ptr<Holdings> server_;
  Amount charged_;
};

// A refusal before anything runs, when the peer already has as many calls running as allowed.
std::optional<std::string> tooManyCalls(const ConnectionState& state) {
  std::size_t running = state.held->calls;
  if (running < state.limits.callsPerConnection) {
    return std::nullopt;
  }
  return fmt::format("this connection already has {} calls running; try again once one has "
                     "ended",
                     running);
}

} // namespace

std::size_t runningWorkerCount() {
  return workers;
}

kj::Promise<void> LocalObjectServer::invoke(InvokeContext context) {
  std::shared_ptr<ConnectionState> state = state_.lock();
  if (!state || !state->alive) {
    return KJ_EXCEPTION(DISCONNECTED, "connection closed");
  }
  // Refused before the object sees anything, the selector included; the caller learns why
  // under the refusal's name.
  auto refuse = [&context](std::string_view name, const std::string& reason) {
    auto raised = context.getResults().initRaised();
    raised.setName(std::string(name));
    raised.setReason(reason);
    return kj::READY_NOW;
  };
  if (auto busy = tooManyCalls(*state)) {
    return refuse(kBusyException, *busy);
  }
  DecodeBudget budget = DecodeBudget::forCall(*state);
  std::string selector;
  std::vector<plist::Value> arguments;
  try {
    auto params = context.getParams();
    auto selectorText = params.getSelector();
    budget.charge(0, selectorText.size());
    selector.assign(selectorText.cStr(), selectorText.size());
    arguments = decodeValues(params.getArguments(), *state, budget);
  } catch (const NamedException& e) {
    return refuse(e.name(), e.what());
  }
  context.releaseParams();

  auto work = [object = object_, caller = state->peer, selector = std::move(selector),
               arguments = std::move(arguments),
               hold = std::make_shared<CallHold>(*state, budget.used())]() mutable {
    return object->invokeFrom(caller, selector, std::move(arguments));
  };
  std::function<plist::Value()> boxed = std::move(work);
  return onWorker(state->workers, std::move(boxed))
      .then([context, weak = state_](OutcomePtr outcome) mutable {
        std::shared_ptr<ConnectionState> state = weak.lock();
        if (!state || !state->alive) {
          return;
        }
        auto results = context.getResults();
        try {
          checkSendable({outcome->result});
          encodeValue(outcome->result, results.initResult(), *state);
        } catch (const NamedException& e) {
          outcome->raise(e.name(), e.what());
          results.initResult().setNull();
        }
        if (outcome->raised) {
          auto raised = results.initRaised();
          raised.setName(outcome->name);
          raised.setReason(outcome->reason);
        }
      });
}

kj::Promise<void> LocalObjectServer::respondsTo(RespondsToContext context) {
  std::shared_ptr<ConnectionState> state = state_.lock();
  if (!state || !state->alive) {
    return KJ_EXCEPTION(DISCONNECTED, "connection closed");
  }
  if (auto busy = tooManyCalls(*state)) {
    return KJ_EXCEPTION(OVERLOADED, *busy);
  }
  DecodeBudget budget = DecodeBudget::forCall(*state);
  auto selectorText = context.getParams().getSelector();
  try {
    budget.charge(0, selectorText.size());
  } catch (const NamedException& e) {
    return KJ_EXCEPTION(FAILED, e.what());
  }
  std::string selector(selectorText.cStr(), selectorText.size());
  context.releaseParams();
  std::function<plist::Value()> work =
      [object = object_, selector, hold = std::make_shared<CallHold>(*state, budget.used())]() {
        return plist::Value(object->respondsTo(selector));
      };
  return onWorker(state->workers, std::move(work)).then([context](OutcomePtr outcome) mutable {
    context.getResults().setResponds(!outcome->raised && outcome->result.asBool().value_or(false));
  });
}

} // namespace kestrin::transport
