#include "app/MainLoop.h"

#include <csignal>
#include <mutex>
#include <thread>

#include <kj/async-io.h>
#include <kj/async-unix.h>
#include <kj/async.h>

namespace kestrin {

struct MainLoop::Impl {
  kj::AsyncIoContext io = kj::setupAsyncIo();
  const kj::Executor& executor = kj::getCurrentThreadExecutor();
  std::thread::id mainThread = std::this_thread::get_id();

  std::mutex mutex;
  bool ended = false;
  bool quitRequested = false;
  kj::Own<kj::CrossThreadPromiseFulfiller<void>> quitFulfiller;
  kj::Maybe<kj::Promise<void>> quitPromise;
};

MainLoop::MainLoop() {
  // Capturing must precede the io set-up's threads and every thread of the agent.
  kj::UnixEventPort::captureSignal(SIGTERM);
  kj::UnixEventPort::captureSignal(SIGINT);
  // A peer that vanishes mid-write must cost a failed write, never the agent.
  std::signal(SIGPIPE, SIG_IGN);
  impl_ = std::make_unique<Impl>();
  auto paf = kj::newPromiseAndCrossThreadFulfiller<void>();
  impl_->quitFulfiller = kj::mv(paf.fulfiller);
  impl_->quitPromise = kj::mv(paf.promise);
}

MainLoop::~MainLoop() = default;

std::optional<int> MainLoop::run() {
  Impl& impl = *impl_;
  kj::Promise<void> quitPromise = nullptr;
  KJ_IF_MAYBE (p, impl.quitPromise) {
    quitPromise = kj::mv(*p);
  } else {
    return std::nullopt;
  }
  impl.quitPromise = nullptr;

  std::optional<int> signal;
  auto onSignal = [&signal](siginfo_t info) { signal = info.si_signo; };
  auto ended = quitPromise.exclusiveJoin(impl.io.unixEventPort.onSignal(SIGTERM).then(onSignal))
                   .exclusiveJoin(impl.io.unixEventPort.onSignal(SIGINT).then(onSignal));
  ended.wait(impl.io.waitScope);
  {
    std::lock_guard lock(impl.mutex);
    impl.ended = true;
  }
  return signal;
}

void MainLoop::quit() {
  std::lock_guard lock(impl_->mutex);
  if (!impl_->quitRequested && !impl_->ended) {
    impl_->quitRequested = true;
    impl_->quitFulfiller->fulfill();
  }
}

bool MainLoop::isMainThread() const {
  return std::this_thread::get_id() == impl_->mainThread;
}

bool MainLoop::runOnMainThreadAndWait(const std::function<void()>& fn) {
  if (isMainThread()) {
    fn();
    return true;
  }
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->ended) {
      return false;
    }
  }
  try {
    impl_->executor.executeSync([&fn] { fn(); });
  } catch (const kj::Exception&) {
    // The loop ended while the call was queued: nothing ran.
    return false;
  }
  return true;
}

} // namespace kestrin
