#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/FileCopyDelegate.h"
#include "platform/Clock.h"
#include "platform/FileStream.h"
#include "plist/Value.h"

namespace kestrin {

// One asynchronous copy of a file, a folder or a link, and the handle its delegate receives
// with each stage: as an object it can travel to a remote delegate, which may hand it back to
// QVFileCopier::cancelFileOperation. It answers no messages of its own.
//
// run() copies on the calling thread and reports its stages through `deliver`: "running" (2)
// when the copy starts and then at most once per kStatusInterval of the clock while a file's
// bytes go over, "complete" (3) once at the end, whatever the outcome. A folder or a link goes
// in one piece, by FileTree. Each status is the settings dictionary ("stage" first) with:
//   "TotalBytes", "BytesCompleted", "BytesRemaining", "Throughput" (bytes per second so far),
//   and at the end of a copy that failed or was cancelled "Error" (the errno; ECANCELED).
// A copy that does not complete leaves nothing at the destination. The destination must not
// exist yet: an object copy adds an item, it replaces none.
class FileOperation final : public plist::RemoteObject,
                            public std::enable_shared_from_this<FileOperation> {
public:
  using Executor = std::function<void(std::function<void()>)>;

  struct Environment {
    platform::FileStreams& streams;
    const platform::Clock& clock;
    Executor deliver;
  };

  static constexpr int kStageRunning = 2;
  static constexpr int kStageComplete = 3;
  static constexpr std::chrono::seconds kStatusInterval{1};
  static constexpr std::size_t kChunkSize = 1 << 20;

  FileOperation(Environment environment, std::string source, std::string destination,
                plist::Dictionary settings, std::shared_ptr<FileCopyDelegate> delegate);

  std::string description() const override;
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override;
  bool respondsTo(const std::string&) override { return false; }

  // The whole copy; once.
  void run();
  // Asks the copy to stop at its next chunk; false once it has completed.
  bool cancel();
  bool completed() const { return completed_; }

private:
  // Answers the errno of a failure, 0 on success.
  int copyFile(std::uint64_t& done);
  int copyWhole(std::uint64_t& done);
  void report(int stage, std::uint64_t done, int error);

  const Environment environment_;
  const std::string source_;
  const std::string destination_;
  const plist::Dictionary settings_;
  // Let go once the last stage is handed over: a delegate may keep the handle.
  std::shared_ptr<FileCopyDelegate> delegate_;
  platform::Clock::TimePoint started_{};
  std::uint64_t total_ = 0;
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> completed_{false};
};

} // namespace kestrin
