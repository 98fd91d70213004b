#include "foundation/CopyLanes.h"

#include <algorithm>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "foundation/DigestContext.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

// How many blocks a destination writes before it reads them back in one go: several blocks per
// system call, and few enough that what was read is still in the processor's cache when it is
// digested.
constexpr std::size_t kChunkBlocks = 8;
// How many source blocks the source digest takes before it gives their buffers back.
constexpr std::size_t kSourceBatch = 16;
// How many blocks wait for a sleeping lane before it is woken: one wake per chunk rather than
// one per block. The reader wakes every lane with work before it waits itself.
constexpr std::size_t kWakeBatch = kChunkBlocks;

} // namespace

struct CopyLanes::Digest {
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

// One lane: the source digest, or one destination with its digest when verifying. The
// counters belong to the mutex; everything else to the one worker that serves the lane, and to
// the reader once the lane is idle.
struct CopyLanes::Lane {
  // One block as this destination took it.
  struct Written {
    std::uint64_t block = 0;
    std::uint64_t copiedBefore = 0; // bytes read from the source before it
    std::size_t blockSize = 0;
    std::uint64_t position = 0; // where it was written
    std::size_t bytes = 0;      // how much of it was
    bool streamError = false;   // whether a write here has failed so far
  };

  std::optional<Digest> digest;
  std::optional<Destination> destination;
  std::size_t order = 0; // of its console lines among a block's
  Worker* worker = nullptr;

  std::uint64_t taken = 0;    // blocks it has started on
  std::uint64_t released = 0; // blocks whose buffers it is done with
  std::uint64_t done = 0;     // blocks it has finished

  std::uint64_t position = 0; // where the next block goes
  bool streamError = false;
  bool readFailed = false;
  std::unique_ptr<std::uint8_t[]> buffer; // for reading back
  std::vector<Written> run;
  std::vector<Line> lines;
};

CopyLanes::CopyLanes(Algorithm algorithm, std::vector<Destination> destinations)
    : verifying_(algorithm != Algorithm::None), blocks_(new std::uint8_t[kBlocks * kBlockSize]) {
  if (verifying_) {
    lanes_.push_back(std::make_unique<Lane>());
    lanes_.back()->digest.emplace(algorithm);
  }
  for (std::size_t i = 0; i < destinations.size(); ++i) {
    auto lane = std::make_unique<Lane>();
    lane->destination.emplace(std::move(destinations[i]));
    lane->order = 1 + i;
    lane->run.reserve(kChunkBlocks);
    if (verifying_) {
      lane->digest.emplace(algorithm);
      lane->buffer.reset(new std::uint8_t[kChunkBlocks * kBlockSize]);
    }
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

CopyLanes::~CopyLanes() {
  stop();
}

void CopyLanes::stop() {
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

// ---- The reader's side

std::span<std::uint8_t> CopyLanes::nextBlock() {
  std::unique_lock lock(mutex_);
  auto roomy = [&] {
    return std::all_of(lanes_.begin(), lanes_.end(),
                       [&](const auto& lane) { return produced_ - lane->released < kBlocks; });
  };
  if (!roomy()) {
    wakeLagging(1);
    readerWaiting_ = true;
    progress_.wait(lock, roomy);
    readerWaiting_ = false;
  }
  return {slot(produced_), kBlockSize};
}

void CopyLanes::blockRead(std::size_t bytes) {
  std::lock_guard lock(mutex_);
  sizes_[produced_ % kBlocks] = bytes;
  offsets_[produced_ % kBlocks] = bytesRead_;
  bytesRead_ += bytes;
  ++produced_;
  wakeLagging(kWakeBatch);
}

void CopyLanes::note(std::string line) {
  readerLines_.push_back({produced_, 0, std::move(line)});
}

void CopyLanes::drain() {
  {
    std::unique_lock lock(mutex_);
    if (!idleLocked()) {
      wakeLagging(1);
      readerWaiting_ = true;
      progress_.wait(lock, [&] { return idleLocked(); });
      readerWaiting_ = false;
    }
  }
  // The lanes are idle: their lines are the reader's to print.
  std::vector<Line> lines = std::move(readerLines_);
  readerLines_.clear();
  for (auto& lane : lanes_) {
    std::move(lane->lines.begin(), lane->lines.end(), std::back_inserter(lines));
    lane->lines.clear();
  }
  std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) {
    return a.block != b.block ? a.block < b.block : a.lane < b.lane;
  });
  for (const Line& line : lines) {
    QVLog::writeConsole(line.text);
  }
}

CopyLanes::Digests CopyLanes::finish() {
  drain();
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
  for (auto& lane : lanes_) {
    if (!lane->digest) {
      continue;
    }
    if (lane->destination) {
      digests.destinations.push_back(lane->digest->finish());
    } else {
      digests.source = lane->digest->finish();
    }
  }
  return digests;
}

bool CopyLanes::idleLocked() const {
  return std::all_of(lanes_.begin(), lanes_.end(),
                     [&](const auto& lane) { return lane->done == produced_; });
}

void CopyLanes::wakeLagging(std::uint64_t behind) {
  for (auto& lane : lanes_) {
    if (lane->worker->sleeping && produced_ - lane->taken >= behind) {
      lane->worker->wake.notify_one();
    }
  }
}

// ---- The lanes' side

void CopyLanes::serve(Worker& worker) {
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

bool CopyLanes::stepSource(Lane& lane, std::unique_lock<std::mutex>& lock) {
  if (lane.taken == produced_) {
    return false;
  }
  const std::uint64_t first = lane.taken;
  const std::uint64_t end = first + std::min<std::uint64_t>(produced_ - first, kSourceBatch);
  lane.taken = end;
  lock.unlock();
  for (std::uint64_t block = first; block < end; ++block) {
    lane.digest->update({slot(block), sizes_[block % kBlocks]});
  }
  lock.lock();
  lane.released = lane.done = end;
  if (readerWaiting_) {
    progress_.notify_one();
  }
  return true;
}

bool CopyLanes::stepDestination(Lane& lane, std::unique_lock<std::mutex>& lock) {
  if (lane.taken == produced_) {
    return false;
  }
  const std::uint64_t first = lane.taken;
  const std::uint64_t end = first + std::min<std::uint64_t>(produced_ - first, kChunkBlocks);
  lane.taken = end;
  lock.unlock();

  // Each block where the last one ended: after a short write the next one follows what was
  // written, as it would on a stream.
  const Destination& destination = *lane.destination;
  const std::uint64_t start = lane.position;
  lane.run.clear();
  for (std::uint64_t block = first; block < end; ++block) {
    const std::span<const std::uint8_t> bytes(slot(block), sizes_[block % kBlocks]);
    const platform::Transfer put = destination.stream.writeAt(lane.position, bytes);
    if (put.bytes < bytes.size()) {
      lane.streamError = true;
      // The stream's error indicator, which a short write always sets.
      lane.lines.push_back({block, lane.order,
                            fmt::format("Error writing file {}: {}",
                                        QVFileManager::printable(destination.path), 1)});
    }
    lane.run.push_back({block, offsets_[block % kBlocks], bytes.size(), lane.position, put.bytes,
                        lane.streamError});
    lane.position += put.bytes;
  }

  lock.lock();
  lane.released = end;
  if (readerWaiting_) {
    progress_.notify_one();
  }
  if (lane.digest) {
    lock.unlock();
    readBack(lane, static_cast<std::size_t>(lane.position - start));
    lock.lock();
  }
  lane.done = end;
  if (readerWaiting_) {
    progress_.notify_one();
  }
  return true;
}

void CopyLanes::readBack(Lane& lane, std::size_t length) {
  if (length == 0) {
    return;
  }
  platform::FileStream& stream = lane.destination->stream;
  std::span<std::uint8_t> stretch(lane.buffer.get(), length);
  platform::Transfer got = stream.readAt(lane.run.front().position, stretch);
  if (got.error == 0 && got.bytes == length) {
    lane.digest->update(stretch);
    return;
  }
  // Something is amiss in this stretch: block by block, as a copy that read each block back
  // right after writing it would have met it.
  for (const Lane::Written& block : lane.run) {
    std::span<std::uint8_t> into(lane.buffer.get(), block.bytes);
    platform::Transfer one =
        block.bytes == 0 ? platform::Transfer{} : stream.readAt(block.position, into);
    if (one.error != 0) {
      lane.lines.push_back(
          {block.block, lane.order,
           fmt::format("Error: unable to seek within file {}\ncur pos: {}\nread size: {}\nerrno: "
                       "{}\nerr: {}",
                       QVFileManager::printable(lane.destination->path), block.copiedBefore,
                       block.blockSize, one.error, block.streamError || lane.readFailed ? 1 : 0)});
      lane.readFailed = true;
    }
    lane.digest->update(into.first(one.bytes));
  }
}

} // namespace kestrin
