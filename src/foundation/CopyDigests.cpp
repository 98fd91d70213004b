#include "foundation/CopyDigests.h"

#include <algorithm>
#include <array>
#include <optional>
#include <variant>

#include <fmt/format.h>

#include "foundation/DigestContext.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

// How much of a destination one read-back takes: several blocks per system call, and few
// enough that what was read is still in the processor's cache when it is digested.
constexpr std::size_t kReadBackChunk = 256 << 10;
// How many blocks one read-back stretch holds at most: a chunk's worth, and some more that a
// full disk took nothing of.
constexpr std::size_t kRunBlocks = 64;
// How many source blocks the source digest takes before it gives their buffers back.
constexpr std::size_t kSourceBatch = 16;
// How many blocks wait for a sleeping digest before it is woken: one wake per read-back chunk
// rather than one per block. Far below what holds the copying thread back, which wakes every
// digest with work before it waits.
constexpr std::size_t kWakeBatch = 8;

} // namespace

struct CopyDigests::Digest {
  explicit Digest(Algorithm algorithm)
      : context(algorithm == Algorithm::MD5
                    ? std::variant<Md5Context, Sha1Context>(std::in_place_type<Md5Context>)
                    : std::variant<Md5Context, Sha1Context>(std::in_place_type<Sha1Context>)) {}

  void update(std::span<const std::uint8_t> bytes) {
    std::visit([&](auto& running) { running.update(bytes); }, context);
  }
  std::string finish() {
    if (auto* md5 = std::get_if<Md5Context>(&context)) {
      return QVFileManager::md5HashWithContext(std::move(*md5));
    }
    return QVFileManager::sha1HashWithContext(std::move(std::get<Sha1Context>(context)));
  }

  std::variant<Md5Context, Sha1Context> context;
};

// One digest and the work queued for it. The queues and `lag` belong to the mutex; the digest,
// the buffer and `readFailed` to the one worker that serves the lane.
struct CopyDigests::Lane {
  explicit Lane(Algorithm algorithm) : digest(algorithm) {}

  Digest digest;
  Worker* worker = nullptr;
  // The source's: the size of each block handed over and not yet digested, in order.
  std::deque<std::size_t> blocks;
  // A destination's: blocks written and not yet read back, and their bytes.
  std::optional<Destination> destination;
  std::deque<Written> written;
  std::uint64_t lag = 0;
  std::unique_ptr<std::uint8_t[]> buffer;
  std::vector<Written> run;
  bool readFailed = false;
};

CopyDigests::CopyDigests(Algorithm algorithm, std::vector<Destination> destinations)
    : blocks_(new std::uint8_t[kBlocks * kBlockSize]) {
  lanes_.push_back(std::make_unique<Lane>(algorithm));
  for (Destination& destination : destinations) {
    auto lane = std::make_unique<Lane>(algorithm);
    lane->destination.emplace(std::move(destination));
    lane->buffer.reset(new std::uint8_t[kReadBackChunk]);
    lane->run.reserve(kRunBlocks);
    lanes_.push_back(std::move(lane));
  }
  const std::size_t threads = std::min(lanes_.size(), kMaxThreads);
  for (std::size_t i = 0; i < threads; ++i) {
    workers_.emplace_back();
  }
  for (std::size_t i = 0; i < lanes_.size(); ++i) {
    Worker& worker = workers_[i % threads];
    worker.lanes.push_back(lanes_[i].get());
    lanes_[i]->worker = &worker;
  }
  try {
    for (Worker& worker : workers_) {
      worker.thread = std::thread([this, &worker] { serve(worker); });
    }
  } catch (...) {
    stop();
    throw;
  }
}

CopyDigests::~CopyDigests() {
  stop();
}

void CopyDigests::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (Worker& worker : workers_) {
      worker.wake.notify_one();
    }
  }
  for (Worker& worker : workers_) {
    if (worker.thread.joinable()) {
      worker.thread.join();
    }
  }
}

std::span<std::uint8_t> CopyDigests::nextBlock() {
  std::unique_lock lock(mutex_);
  auto roomy = [&] {
    return produced_ - consumed_ < kBlocks &&
           std::all_of(lanes_.begin() + 1, lanes_.end(),
                       [](const auto& lane) { return lane->lag <= kMaxLag; });
  };
  if (!roomy()) {
    for (auto& lane : lanes_) {
      if (!lane->blocks.empty() || !lane->written.empty()) {
        wakeLane(*lane);
      }
    }
    copierWaiting_ = true;
    room_.wait(lock, roomy);
    copierWaiting_ = false;
  }
  return {blocks_.get() + (produced_ % kBlocks) * kBlockSize, kBlockSize};
}

void CopyDigests::blockRead(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  Lane& lane = *lanes_.front();
  lane.blocks.push_back(bytes);
  ++produced_;
  if (lane.blocks.size() >= kWakeBatch) {
    wakeLane(lane);
  }
}

void CopyDigests::blockWritten(std::size_t index, const Written& written) {
  std::lock_guard lock(mutex_);
  Lane& lane = *lanes_.at(index + 1);
  lane.written.push_back(written);
  lane.lag += written.bytes;
  if (lane.written.size() >= kWakeBatch) {
    wakeLane(lane);
  }
}

CopyDigests::Digests CopyDigests::finish() {
  {
    std::lock_guard lock(mutex_);
    closing_ = true;
    for (Worker& worker : workers_) {
      worker.wake.notify_one();
    }
  }
  for (Worker& worker : workers_) {
    worker.thread.join();
  }
  Digests digests;
  digests.source = lanes_.front()->digest.finish();
  for (auto lane = lanes_.begin() + 1; lane != lanes_.end(); ++lane) {
    digests.destinations.push_back((*lane)->digest.finish());
  }
  return digests;
}

void CopyDigests::wakeLane(Lane& lane) {
  if (lane.worker->sleeping) {
    lane.worker->wake.notify_one();
  }
}

void CopyDigests::madeRoom() {
  if (copierWaiting_) {
    room_.notify_one();
  }
}

void CopyDigests::serve(Worker& worker) {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    bool worked = false;
    for (Lane* lane : worker.lanes) {
      worked =
          (lane->destination ? stepDestination(*lane, lock) : stepSource(*lane, lock)) || worked;
      if (stopping_) {
        return;
      }
    }
    if (!worked) {
      if (closing_) {
        return;
      }
      worker.sleeping = true;
      worker.wake.wait(lock);
      worker.sleeping = false;
    }
  }
}

bool CopyDigests::stepSource(Lane& lane, std::unique_lock<std::mutex>& lock) {
  if (lane.blocks.empty()) {
    return false;
  }
  std::array<std::size_t, kSourceBatch> sizes{};
  const std::size_t count = std::min(lane.blocks.size(), kSourceBatch);
  std::copy_n(lane.blocks.begin(), count, sizes.begin());
  const std::uint64_t first = consumed_;
  lock.unlock();
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t slot = static_cast<std::size_t>((first + i) % kBlocks);
    lane.digest.update({blocks_.get() + slot * kBlockSize, sizes[i]});
  }
  lock.lock();
  lane.blocks.erase(lane.blocks.begin(), lane.blocks.begin() + static_cast<std::ptrdiff_t>(count));
  consumed_ += count;
  madeRoom();
  return true;
}

bool CopyDigests::stepDestination(Lane& lane, std::unique_lock<std::mutex>& lock) {
  if (lane.written.empty()) {
    return false;
  }
  // One stretch of blocks laid end to end, as every destination's are unless it was changed
  // behind the copy's back.
  lane.run.clear();
  std::size_t length = 0;
  while (!lane.written.empty()) {
    const Written& next = lane.written.front();
    if (!lane.run.empty() &&
        (next.position != lane.run.back().position + lane.run.back().bytes ||
         length + next.bytes > kReadBackChunk || lane.run.size() == kRunBlocks)) {
      break;
    }
    length += next.bytes;
    lane.run.push_back(next);
    lane.written.pop_front();
  }
  lock.unlock();
  readBack(lane, length);
  lock.lock();
  lane.lag -= length;
  madeRoom();
  return true;
}

void CopyDigests::readBack(Lane& lane, std::size_t length) {
  if (length == 0) {
    return;
  }
  platform::FileStream& stream = lane.destination->stream;
  std::span<std::uint8_t> stretch(lane.buffer.get(), length);
  platform::Transfer got = stream.readAt(lane.run.front().position, stretch);
  if (got.error == 0 && got.bytes == length) {
    lane.digest.update(stretch);
    return;
  }
  // Something is amiss in this stretch: block by block, as a copy that read each block back
  // right after writing it would have met it.
  for (const Written& block : lane.run) {
    std::span<std::uint8_t> into(lane.buffer.get(), block.bytes);
    platform::Transfer one =
        block.bytes == 0 ? platform::Transfer{} : stream.readAt(block.position, into);
    if (one.error != 0) {
      QVLog::writeConsole(
          fmt::format("Error: unable to seek within file {}\ncur pos: {}\nread size: "
                      "{}\nerrno: {}\nerr: {}",
                      QVFileManager::printable(lane.destination->path), block.copiedBefore,
                      block.blockSize, one.error, block.streamError || lane.readFailed ? 1 : 0));
      lane.readFailed = true;
    }
    lane.digest.update(into.first(one.bytes));
  }
}

} // namespace kestrin
