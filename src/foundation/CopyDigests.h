#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileStream.h"

namespace kestrin {

// The digests of one verified copy, worked out beside the copying thread: the source's from
// the blocks as they were read, each destination's from what is read back of it after it was
// written. The copying thread only reads and writes. Each digest takes its input in the order
// the copy produced it, and a destination is read back exactly where and as far as each block
// was written, so the digests are those of a copy that read every block back right after
// writing it.
//
// One thread per digest, up to kMaxThreads, which then share the digests out. The copying
// thread is held back while the source digest is kBlocks blocks behind or a read-back more than
// kMaxLag bytes behind, so that what is read back still sits in the page cache and the memory
// used stays fixed.
class CopyDigests {
public:
  enum class Algorithm { MD5, SHA1 };

  static constexpr std::size_t kBlockSize = 32768;
  static constexpr std::size_t kBlocks = 128;
  static constexpr std::uint64_t kMaxLag = 4 << 20;
  static constexpr std::size_t kMaxThreads = 8;

  // A destination to read back: its path for the failure lines, and its stream, which must
  // outlive this object.
  struct Destination {
    std::string path;
    platform::FileStream& stream;
  };

  // One block as one destination took it.
  struct Written {
    std::uint64_t copiedBefore = 0; // bytes read from the source before this block
    std::size_t blockSize = 0;      // bytes read from the source for it
    std::uint64_t position = 0;     // where it was written
    std::size_t bytes = 0;          // how much of it was written
    bool streamError = false;       // whether a write to this destination has failed so far
  };

  struct Digests {
    std::string source; // lower-case hexadecimal
    std::vector<std::string> destinations;
  };

  // Throws std::bad_alloc when the block buffers cannot be had and std::system_error when a
  // thread cannot be started.
  CopyDigests(Algorithm algorithm, std::vector<Destination> destinations);
  // Stops every digest where it is and joins the threads.
  ~CopyDigests();
  CopyDigests(const CopyDigests&) = delete;
  CopyDigests& operator=(const CopyDigests&) = delete;

  // The buffer to read the next source block into, kBlockSize bytes, once there is room. It
  // stays the same until blockRead() hands it over.
  std::span<std::uint8_t> nextBlock();
  // The first `bytes` of that buffer came from the source: the source digest takes them. The
  // copying thread may go on writing them out of the buffer until its next nextBlock().
  void blockRead(std::size_t bytes);
  // The block went to destination `index`: its read-back takes what was written.
  void blockWritten(std::size_t index, const Written& written);

  // Waits until every digest has taken in all it was handed, then finishes them. Once only.
  Digests finish();

private:
  struct Digest;
  struct Lane;
  struct Worker {
    std::vector<Lane*> lanes;
    std::condition_variable wake;
    bool sleeping = false;
    std::thread thread;
  };

  void serve(Worker& worker);
  bool stepSource(Lane& lane, std::unique_lock<std::mutex>& lock);
  bool stepDestination(Lane& lane, std::unique_lock<std::mutex>& lock);
  void readBack(Lane& lane, std::size_t length);
  void wakeLane(Lane& lane);
  void madeRoom();
  void stop();

  std::unique_ptr<std::uint8_t[]> blocks_;
  std::vector<std::unique_ptr<Lane>> lanes_; // the source's first, then the destinations'
  std::deque<Worker> workers_;

  std::mutex mutex_;
  std::condition_variable room_;
  bool copierWaiting_ = false;
  bool closing_ = false;       // nothing more will be handed over
  bool stopping_ = false;      // abandon what is left
  std::uint64_t produced_ = 0; // blocks handed to the source digest
  std::uint64_t consumed_ = 0; // blocks it has taken in
};

} // namespace kestrin
