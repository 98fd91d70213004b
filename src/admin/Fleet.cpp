#include "admin/Fleet.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include <fmt/format.h>

#include "support/NamedException.h"

namespace kestrin::admin {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

// A failure that came when the limit was (all but) used up was the limit's doing, whatever the
// layer below called it: a silent port ends its handshake with "not a Kestrin agent".
FleetResult::Outcome failureAfter(milliseconds elapsed, milliseconds limit) {
  bool outOfTime = limit.count() > 0 && elapsed >= limit * 9 / 10;
  return outOfTime ? FleetResult::Outcome::TimedOut : FleetResult::Outcome::Failed;
}

} // namespace

void FleetSummary::count(const FleetResult& result) {
  switch (result.outcome) {
  case FleetResult::Outcome::Answered:
    ++answered;
    break;
  case FleetResult::Outcome::Failed:
    ++failed;
    agentErrors += result.agentError ? 1 : 0;
    break;
  case FleetResult::Outcome::TimedOut:
    ++timedOut;
    break;
  }
}

FleetResult Fleet::reach(const AgentAddress& agent, const Options& options, const Work& work) {
  FleetResult result;
  result.agent = agent;
  auto start = Clock::now();
  auto connected = AdminClient::connect(agent, options.limit, nullptr, options.trust);
  if (!connected) {
    result.elapsed = since(start);
    result.outcome = failureAfter(result.elapsed, options.limit);
    result.error = connected.message();
    return result;
  }
  AdminClient& client = **connected;
  if (options.limit.count() > 0) {
    milliseconds left = options.limit - since(start);
    if (left.count() <= 0) {
      result.elapsed = since(start);
      result.outcome = FleetResult::Outcome::TimedOut;
      result.error = "no time left after connecting";
      return result;
    }
    client.connection().setReplyTimeout(left);
  }
  try {
    result.answer = work(client);
    result.outcome = FleetResult::Outcome::Answered;
  } catch (const NamedException& e) {
    result.error = fmt::format("{}: {}", e.name(), e.what());
    result.outcome = e.name() == kPortTimeoutException ? FleetResult::Outcome::TimedOut
                                                       : FleetResult::Outcome::Failed;
    result.agentError = e.name() != kPortTimeoutException && e.name() != kInvalidSendPortException;
  } catch (const std::exception& e) {
    result.error = e.what();
    result.outcome = FleetResult::Outcome::Failed;
  }
  result.elapsed = since(start);
  return result;
}

FleetSummary Fleet::run(const std::vector<AgentAddress>& agents, const Options& options,
                        const Work& work, const Report& report) {
  FleetSummary summary;
  std::mutex reporting;
  std::atomic<std::size_t> next{0};
  auto worker = [&] {
    for (std::size_t i = next++; i < agents.size(); i = next++) {
      FleetResult result = reach(agents[i], options, work);
      std::lock_guard lock(reporting);
      summary.count(result);
      report(result);
    }
  };
  std::size_t threads = std::min(std::max<std::size_t>(options.parallel, 1), agents.size());
  std::vector<std::thread> pool;
  pool.reserve(threads);
  for (std::size_t i = 0; i < threads; ++i) {
    pool.emplace_back(worker);
  }
  for (std::thread& thread : pool) {
    thread.join();
  }
  return summary;
}

} // namespace kestrin::admin
