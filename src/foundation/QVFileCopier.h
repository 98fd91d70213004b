#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/FileCopyDelegate.h"
#include "foundation/FileOperation.h"
#include "foundation/QVFileManager.h"
#include "platform/FileStream.h"
#include "plist/Value.h"

namespace kestrin {

// The file manager's two copies that report to a delegate as they go (FileCopyDelegate).
//
// The streaming copy reads its source once, in kBlockSize blocks, and writes every block to
// each destination. With verification it reads every written block back into that
// destination's digest (MD5 or SHA-1), so a destination's digest checks what landed on it, not
// what was sent; at the end each destination's digest is compared with the source's. It runs
// on the caller's thread and calls the delegate there: "fileCopyBytesWritten:settings:" each
// time kReportInterval more bytes were read, each followed by "fileCopyShouldContinue:" (false
// cancels), one final report, "fileCopyVerificationFailed:file:" per destination that differs,
// and "fileCopyFinished:". The writes, read-backs and digests run on threads beside the reading
// one (CopyLanes), yet the messages, their order, the results and the console lines are those
// of a copy doing it all in step.
//
// The asynchronous copy (the "Old" one) copies one file or folder on a thread of the copier's
// own and hands each stage to the executor given at construction (the app's main loop), never
// waiting for it to be delivered (FileOperation). The executor runs what it is given in order;
// delivering to a remote delegate waits for the peer, so an executor that must never block
// hands such deliveries on to a worker.
//
// Settings dictionary, built once per copy and passed with every message: "source",
// "destinations" (streaming) or "destination" (asynchronous), "operationtype" = "copy", and
// "delegate" (FileCopyDelegate::object()), "object", "object2" when given (a null value is not
// given). After a verified copy: "sourceChecksum", "destChecksums" (destination order), and,
// while a destination that failed verification is reported, its digest as "destChecksum".
//
// Failures are console lines and a false result; the copy never throws of its own accord. An
// exception from the delegate ends a streaming copy like a cancellation and, once every file is
// closed, reaches the caller, so that a remote delegate's timeout reaches the exception guard
// that restarts the service.
class QVFileCopier {
public:
  enum class VerificationType { None = 0, MD5 = 1, SHA1 = 2 };
  using Executor = FileOperation::Executor;

  struct Environment {
    // Where the asynchronous copy's stages are delivered. Empty: asynchronous copies cannot be
    // scheduled.
    Executor mainLoop;
    platform::FileStreams& streams = platform::FileStreams::system();
    // The clock of the asynchronous copy's status interval and of the wait for a destination
    // folder, and what the folder's creation uses.
    const QVFileManager::Environment& files = QVFileManager::Environment::shared();
  };

  static constexpr std::size_t kBlockSize = 32768;
  static constexpr std::uint64_t kReportInterval = 40 << 20;
  // How long a missing destination folder is waited for once it was asked for.
  static constexpr QVFileManager::Timeout kFolderTimeout{10};
  // What cancelFileOperation answers: the platform's "no error" and "bad parameter".
  static constexpr int kNoErr = 0;
  static constexpr int kParamErr = -50;

  explicit QVFileCopier(Environment environment);
  // Cancels the asynchronous copies still running and waits for them to complete. Not from a
  // delivery running on a copy's own thread.
  ~QVFileCopier();
  QVFileCopier(const QVFileCopier&) = delete;
  QVFileCopier& operator=(const QVFileCopier&) = delete;

  // False after a failure before the first block, on cancellation, and when the source ended
  // short of the size it had when it was opened. A destination that took less than it was
  // given (a full disk) is reported on the console and through its digest, and does not fail
  // the copy; neither does a verification failure.
  bool copyFileWithProgress(const std::string& source, const std::vector<std::string>& destinations,
                            VerificationType verificationType,
                            const std::shared_ptr<FileCopyDelegate>& delegate,
                            const plist::Value& object, const plist::Value& object2);
  // One destination, no verification.
  bool copyFileWithProgress(const std::string& source, const std::string& destination,
                            const std::shared_ptr<FileCopyDelegate>& delegate,
                            const plist::Value& object, const plist::Value& object2 = {});

  // True once the copy has started; its outcome arrives with the "complete" stage.
  bool copyFileWithProgressOld(const std::string& source, const std::string& destination,
                               const std::shared_ptr<FileCopyDelegate>& delegate,
                               const plist::Value& object, const plist::Value& object2);
  // Cancels a running copy given its handle (as delivered with its stages): kNoErr, or
  // kParamErr for anything else, a completed copy included.
  int cancelFileOperation(const plist::ObjectRef& operation);

private:
  struct Running {
    std::shared_ptr<FileOperation> operation;
    std::thread thread;
  };

  // The destination's folder exists, or was made now; otherwise the console says so.
  bool ensureFolderOf(const std::string& source, const std::string& destination) const;
  // The copies that have completed, out of the list, to be joined without the lock.
  std::list<Running> takeCompletedLocked();
  static void joinAll(std::list<Running>& completed);

  const Environment environment_;
  std::mutex mutex_;
  std::list<Running> running_;
  bool stopping_ = false;
};

} // namespace kestrin
