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

} // namespace

std::size_t runningWorkerCount() {
  return workers;
}

kj::Promise<void> LocalObjectServer::invoke(InvokeContext context) {
  std::shared_ptr<ConnectionState> state = state_.lock();
  if (!state || !state->alive) {
    return KJ_EXCEPTION(DISCONNECTED, "connection closed");
  }
  auto params = context.getParams();
  std::string selector = params.getSelector();
  std::vector<plist::Value> arguments;
  arguments.reserve(params.getArguments().size());
  try {
    for (auto argument : params.getArguments()) {
      arguments.push_back(decodeValue(argument, *state));
    }
  } catch (const NamedException& e) {
    // Refused before the object sees anything; the caller learns why under the same name.
    auto raised = context.getResults().initRaised();
    raised.setName(e.name());
    raised.setReason(e.what());
    return kj::READY_NOW;
  }
  context.releaseParams();

  auto work = [object = object_, caller = state->peer, selector = std::move(selector),
               arguments = std::move(arguments)]() mutable {
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
  std::string selector = context.getParams().getSelector();
  std::function<plist::Value()> work = [object = object_, selector]() {
    return plist::Value(object->respondsTo(selector));
  };
  return onWorker(state->workers, std::move(work)).then([context](OutcomePtr outcome) mutable {
    context.getResults().setResponds(!outcome->raised && outcome->result.asBool().value_or(false));
  });
}

} // namespace kestrin::transport
