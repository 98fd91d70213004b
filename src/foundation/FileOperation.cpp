#include "foundation/FileOperation.h"

#include <cerrno>
#include <new>
#include <utility>

#include <unistd.h>

#include "foundation/FileAttributes.h"
#include "foundation/FileTree.h"
#include "foundation/QVException.h"
#include "foundation/QVFileManager.h"
#include "support/NamedException.h"

namespace kestrin {

FileOperation::FileOperation(Environment environment, std::string source, std::string destination,
                             plist::Dictionary settings, std::shared_ptr<FileCopyDelegate> delegate)
    : environment_(std::move(environment)), source_(std::move(source)),
      destination_(std::move(destination)), settings_(std::move(settings)),
      delegate_(std::move(delegate)) {}

std::string FileOperation::description() const {
  return "<file operation " + QVFileManager::printable(source_) + " to " +
         QVFileManager::printable(destination_) + ">";
}

plist::Value FileOperation::invoke(const std::string& selector, std::vector<plist::Value>) {
  throw ArgumentError(description() + " does not respond to selector " + selector);
}

bool FileOperation::cancel() {
  if (completed_) {
    return false;
  }
  cancelled_ = true;
  return true;
}

void FileOperation::run() {
  started_ = environment_.clock.now();
  std::uint64_t done = 0;
  int error = 0;
  try {
    // An object copy takes a link as a link and a folder with everything in it.
    const bool whole =
        QVFileManager::isSymbolicLinkAtPath(source_) || QVFileManager::isDirectoryAtPath(source_);
    error = whole ? copyWhole(done) : copyFile(done);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  } catch (const std::exception&) {
    error = EIO;
  }
  completed_ = true;
  report(kStageComplete, done, error);
  delegate_.reset();
}

int FileOperation::copyFile(std::uint64_t& done) {
  auto source = environment_.streams.openForReading(source_);
  if (!source) {
    return errno;
  }
  auto status = source->status();
  total_ = status ? status->size : 0;
  auto destination = environment_.streams.createForUpdate(destination_);
  if (!destination) {
    return errno;
  }
  report(kStageRunning, 0, 0);
  const platform::Clock& clock = environment_.clock;
  auto nextReport = clock.deadlineAfter(kStatusInterval);
  std::vector<std::uint8_t> chunk(kChunkSize);
  int error = 0;
  for (;;) {
    if (cancelled_) {
      error = ECANCELED;
      break;
    }
    platform::Transfer got = source->read(chunk);
    platform::Transfer put = destination->writeAt(done, {chunk.data(), got.bytes});
    done += put.bytes;
    if (put.bytes < got.bytes) {
      error = put.error != 0 ? put.error : ENOSPC;
      break;
    }
    if (got.error != 0) {
      error = got.error;
      break;
    }
    if (got.bytes < chunk.size()) {
      break;
    }
    if (clock.now() >= nextReport) {
      report(kStageRunning, done, 0);
      nextReport = clock.deadlineAfter(kStatusInterval);
    }
  }
  destination.reset();
  if (error != 0) {
    ::unlink(destination_.c_str()); // made by this copy, which did not complete
  } else if (auto attributes = FileAttributes::read(source_)) {
    attributes->applyTo(destination_);
  }
  return error;
}

int FileOperation::copyWhole(std::uint64_t& done) {
  total_ = QVFileManager::fileSize(source_);
  report(kStageRunning, 0, 0);
  if (cancelled_) {
    return ECANCELED;
  }
  // In one piece, without a status on the way: a failed copy removes what it made.
  if (!FileTree::copyItem(source_, destination_)) {
    return EIO;
  }
  done = total_;
  return 0;
}

void FileOperation::report(int stage, std::uint64_t done, int error) {
  plist::Dictionary status;
  status.set("stage", stage);
  for (const auto& [key, value] : settings_) {
    status.set(key, value);
  }
  status.set("TotalBytes", total_);
  status.set("BytesCompleted", done);
  status.set("BytesRemaining", total_ > done ? total_ - done : 0);
  const double seconds = std::chrono::duration<double>(environment_.clock.now() - started_).count();
  status.set("Throughput", seconds > 0 ? static_cast<double>(done) / seconds : 0.0);
  if (error != 0) {
    status.set("Error", error);
  }
  if (!delegate_) {
    return;
  }
  auto delivery = [delegate = delegate_, status = std::move(status), self = shared_from_this(),
                   stage] {
    using Message = FileCopyDelegate::Message;
    const bool running = stage == kStageRunning;
    const Message withHandle =
        running ? Message::OperationProgressWithHandle : Message::OperationFinishedWithHandle;
    const Message alone = running ? Message::OperationProgress : Message::OperationFinished;
    try {
      if (delegate->respondsTo(withHandle)) {
        running ? delegate->fileOperationProgress(status, self)
                : delegate->fileOperationFinished(status, self);
      } else if (delegate->respondsTo(alone)) {
        running ? delegate->fileOperationProgress(status) : delegate->fileOperationFinished(status);
      }
    } catch (const std::exception& exception) {
      // Nobody waits for a delivery: what went wrong in it is the log's.
      QVException::logException(exception, FileCopyDelegate::selector(withHandle).data());
    }
  };
  try {
    environment_.deliver(std::move(delivery));
  } catch (const std::exception& exception) {
    QVException::logException(exception, "-[QVFileManager copyFileWithProgressOld:destination:"
                                         "delegate:object:object:]");
  }
}

} // namespace kestrin
