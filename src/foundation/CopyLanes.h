#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileStream.h"

namespace kestrin {

// The work of one streaming copy beside the thread that reads its source: every destination's
// writes and read-back, and the digests. The reading thread reads each block into a buffer
// from nextBlock() and hands it over with blockRead(); then, each on a thread of its own, every
// destination writes the block where its previous one ended (as a stream would, after a short
// write too), reads back what it wrote into its digest, and the source digest takes the block.
//
// Whatever the threads, the outcome is that of a copy doing it all in step, block after block
// and destination after destination: each digest takes its input in order; a destination is
// read back exactly where and as far as each block was written; after drain() every block
// handed over is on every destination; and the console lines (a short write, a failed
// read-back, and the reader's own through note()) come out at drain() in the order such a copy
// would have printed them.
//
// One thread per lane (the source digest's, one per destination), up to kMaxThreads, which
// then share the lanes. The reader is held back while any lane is kBlocks blocks behind.
class CopyLanes {
public:
  enum class Algorithm { None, MD5, SHA1 };

  static constexpr std::size_t kBlockSize = 32768;
  static constexpr std::size_t kBlocks = 128;
  static constexpr std::size_t kMaxThreads = 8;

  // A destination: its path for the console lines, and its open stream, emptied already, which
  // must outlive this object.
  struct Destination {
    std::string path;
    platform::FileStream& stream;
  };

  struct Digests {
    std::string source; // lower-case hexadecimal
    std::vector<std::string> destinations;
  };

  // Throws std::bad_alloc when the block buffers cannot be had and std::system_error when a
  // thread cannot be started.
  CopyLanes(Algorithm algorithm, std::vector<Destination> destinations);
  // Stops every lane where it is and joins the threads; lines not yet printed are dropped.
  ~CopyLanes();
  CopyLanes(const CopyLanes&) = delete;
  CopyLanes& operator=(const CopyLanes&) = delete;

  // The buffer to read the next block into, kBlockSize bytes, once there is room.
  std::span<std::uint8_t> nextBlock();
  // The first `bytes` (not 0) of that buffer came from the source.
  void blockRead(std::size_t bytes);
  // A console line of the reader's, in its place before the next block's own lines.
  void note(std::string line);
  // Waits until every lane has done all it was handed, then prints the lines held so far.
  void drain();
  // drain(), then the digests (empty without an algorithm). Once only.
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
  // A console line and where a copy in step would have printed it.
  struct Line {
    std::uint64_t block = 0;
    std::size_t lane = 0; // 0: the reader; 1 + n: destination n
    std::string text;
  };

  std::uint8_t* slot(std::uint64_t block) const {
    return blocks_.get() + (block % kBlocks) * kBlockSize;
  }
  void serve(Worker& worker);
  bool stepSource(Lane& lane, std::unique_lock<std::mutex>& lock);
  bool stepDestination(Lane& lane, std::unique_lock<std::mutex>& lock);
  void readBack(Lane& lane, std::size_t length);
  void wakeLagging(std::uint64_t behind);
  bool idleLocked() const;
  void stop();

  const bool verifying_;
  std::unique_ptr<std::uint8_t[]> blocks_;
  std::array<std::size_t, kBlocks> sizes_{};
  std::array<std::uint64_t, kBlocks> offsets_{}; // bytes read before each block
  std::vector<std::unique_ptr<Lane>> lanes_;     // the source digest's first, when verifying
  std::deque<Worker> workers_;
  std::vector<Line> readerLines_;

  std::uint64_t bytesRead_ = 0; // the reader's: bytes handed over

  std::mutex mutex_;
  std::condition_variable progress_; // the reader waits here for room, or for lanes to drain
  bool readerWaiting_ = false;
  bool closing_ = false;       // nothing more will be handed over
  bool stopping_ = false;      // abandon what is left
  std::uint64_t produced_ = 0; // blocks handed over
};

} // namespace kestrin
