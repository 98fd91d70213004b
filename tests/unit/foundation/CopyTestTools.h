#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/FileCopyDelegate.h"
#include "platform/FileStream.h"
#include "plist/Value.h"

namespace kestrin::testing {

// The machine's own streams with seams a test can reach into: what a read-back finds (a disk
// that corrupts what it stored), how the source reads (a device that fails or a clock that moves
// with each read), and how often destinations were read back.
class HookedStreams final : public platform::FileStreams {
public:
  // Runs before each positioned read of a file, with the real stream: may change the file.
  std::function<void(const std::string& path, platform::FileStream& real, std::uint64_t offset,
                     std::size_t length)>
      beforeReadAt;
  // Runs before each sequential read; a non-zero answer fails that read with it as errno.
  std::function<int(const std::string& path, std::uint64_t offset)> beforeRead;

  std::unique_ptr<platform::FileStream> openForReading(const std::string& path) override;
  std::unique_ptr<platform::FileStream> openForUpdate(const std::string& path) override;
  std::unique_ptr<platform::FileStream> createForUpdate(const std::string& path) override;

  std::size_t readBacks() const { return readBacks_; }

private:
  class Stream;
  std::unique_ptr<platform::FileStream> wrap(std::unique_ptr<platform::FileStream> real,
                                             const std::string& path);

  std::atomic<std::size_t> readBacks_{0};
};

// A local delegate that answers the messages it is given and records each one with a copy of
// the settings (or status) it came with.
class RecordingDelegate : public FileCopyDelegate {
public:
  struct Call {
    Message message;
    std::uint64_t total = 0;
    plist::Dictionary settings;
    std::string file;
    plist::ObjectRef operation;
  };

  explicit RecordingDelegate(std::vector<Message> answers);

  // What fileCopyShouldContinue: answers; and what runs on each report and each stage.
  bool keepGoing = true;
  std::function<void(std::uint64_t total)> onBytesWritten;
  std::function<void(const Call& call)> onStage;

  bool respondsTo(Message message) override;
  void fileCopyBytesWritten(std::uint64_t total, const plist::Dictionary& settings) override;
  bool fileCopyShouldContinue(const plist::Dictionary& settings) override;
  void fileCopyVerificationFailed(const plist::Dictionary& settings,
                                  const std::string& file) override;
  void fileCopyFinished(const plist::Dictionary& settings) override;
  void fileOperationProgress(const plist::Dictionary& status,
                             const plist::ObjectRef& operation) override;
  void fileOperationProgress(const plist::Dictionary& status) override;
  void fileOperationFinished(const plist::Dictionary& status,
                             const plist::ObjectRef& operation) override;
  void fileOperationFinished(const plist::Dictionary& status) override;

  std::vector<Call> calls() const;
  std::vector<Message> messages() const;

private:
  void record(Call call);

  std::vector<Message> answers_;
  mutable std::mutex mutex_;
  std::vector<Call> calls_;
};

// Open descriptors of this process.
std::size_t openDescriptors();
// A file of `size` bytes that repeat no short pattern.
void writeNoise(const std::filesystem::path& path, std::uint64_t size);
// The SHA-1 of a whole file, worked out with OpenSSL in one piece.
std::string sha1OfFile(const std::filesystem::path& path);

} // namespace kestrin::testing
