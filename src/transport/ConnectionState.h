#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>

#include <capnp/capability.h>
#include <kj/async.h>
#include <kj/debug.h>
#include <kj/timer.h>

#include "plist/Value.h"
#include "transport/TransportLimits.h"
#include "transport/remote.capnp.h"

namespace kestrin {
class WorkerPool;
}

namespace kestrin::transport {

class CapabilityProxy;

// An amount of decoded values: how many, and what they hold in memory.
struct Amount {
  std::size_t values = 0;
  std::size_t bytes = 0;
};

// What the peers' calls in flight hold, for one connection or for every connection of one
// server: taken on the loop thread when a call's arguments are decoded, given back on the
// worker when the call's work has ended (its arguments go with it), whether or not its
// connection still lives.
struct Holdings {
  std::atomic<std::size_t> calls{0};
  std::atomic<std::size_t> values{0};
  std::atomic<std::size_t> bytes{0};
};

// What one two-party connection shares between its loop thread and the threads that call its
// proxies. The maps and the timer belong to the loop thread; other threads reach them only
// inside executor->executeSync. alive, replyTimeout and the holdings may be read anywhere.
struct ConnectionState : std::enable_shared_from_this<ConnectionState> {
  // server: the holdings of every connection of the same server, or null for a client's one
  // connection.
  ConnectionState(kj::Own<const kj::Executor> executor, kj::Timer& timer, WorkerPool& workers,
                  plist::RemoteObject::Caller peer, const TransportLimits& limits = {},
                  std::shared_ptr<Holdings> server = nullptr)
      : executor(kj::mv(executor)), loopThread(std::this_thread::get_id()), workers(workers),
        peer(std::move(peer)), limits(limits), server(std::move(server)), timer(&timer) {}

  bool onLoopThread() const { return std::this_thread::get_id() == loopThread; }

  // ---- any thread
  kj::Own<const kj::Executor> executor;
  const std::thread::id loopThread;
  std::atomic<bool> alive{true};
  std::atomic<std::int64_t> replyTimeoutMs{0}; // 0: no limit
  // Where calls of the peer to our objects run.
  WorkerPool& workers;
  // Who the peer is, as our objects see their callers.
  const plist::RemoteObject::Caller peer;
  const TransportLimits limits;
  // The peer's calls to our objects that are running, and what their arguments hold; and the
  // same for the server's every connection (null for a client's one connection).
  const std::shared_ptr<Holdings> held = std::make_shared<Holdings>();
  const std::shared_ptr<Holdings> server;

  // ---- loop thread only
  kj::Timer* timer;
  std::uint64_t nextId = 1;
  // The peer's objects that proxies on our side stand for, by proxy id.
  std::map<std::uint64_t, wire::RemoteObject::Client> imports;
  // One proxy per peer object while the proxy lives, so that the same object arriving twice
  // compares equal.
  std::map<const void*, std::weak_ptr<CapabilityProxy>> proxiesByHook;
  // Our objects that the peer was given, so that each is exported once per connection.
  std::map<const plist::RemoteObject*, wire::RemoteObject::Client> exports;

  // Forgets everything the connection holds; on the loop thread, when it ends.
  void drop() {
    alive = false;
    if (peer.connected) {
      *peer.connected = false; // the calls of the peer still running may stop
    }
    imports.clear();
    proxiesByHook.clear();
    exports.clear();
  }
};

} // namespace kestrin::transport
