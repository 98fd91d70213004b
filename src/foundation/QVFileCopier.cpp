#include "foundation/QVFileCopier.h"

#include <optional>
#include <span>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "foundation/CopyLanes.h"
#include "foundation/FileAttributes.h"
#include "foundation/FileTree.h"
#include "foundation/QVLog.h"

namespace kestrin {

namespace {

using Message = FileCopyDelegate::Message;

static_assert(QVFileCopier::kBlockSize == CopyLanes::kBlockSize);

std::string printable(const std::string& path) {
  return QVFileManager::printable(path);
}

// One destination of a streaming copy, open.
struct Target {
  std::string path;
  std::unique_ptr<platform::FileStream> stream;
};

plist::Dictionary settingsFor(const std::string& source, const char* destinationKey,
                              plist::Value destination,
                              const std::shared_ptr<FileCopyDelegate>& delegate,
                              const plist::Value& object, const plist::Value& object2) {
  plist::Dictionary settings{
      {"source", source}, {destinationKey, std::move(destination)}, {"operationtype", "copy"}};
  if (delegate) {
    settings.set("delegate", delegate->object());
  }
  if (!object.isNull()) {
    settings.set("object", object);
  }
  if (!object2.isNull()) {
    settings.set("object2", object2);
  }
  return settings;
}

bool sameFile(const std::optional<platform::StreamStatus>& a,
              const std::optional<platform::StreamStatus>& b) {
  return a && b && a->device == b->device && a->inode == b->inode;
}

// Every destination opened and recognised before any is emptied: one that is the source under
// another name would otherwise be emptied before it was read. Nullopt after the console line.
std::optional<std::vector<Target>>
openTargets(platform::FileStreams& streams, const std::vector<std::string>& destinations,
            const std::optional<platform::StreamStatus>& source) {
  std::vector<Target> targets;
  for (const std::string& destination : destinations) {
    auto stream = streams.openForUpdate(destination);
    if (!stream || sameFile(stream->status(), source)) {
      QVLog::console("Error: Unable to open destination file {}. Aborting copy process...",
                     printable(destination));
      return std::nullopt;
    }
    targets.push_back({destination, std::move(stream)});
  }
  for (Target& target : targets) {
    if (target.stream->truncate() != 0) {
      QVLog::console("Error: Unable to open destination file {}. Aborting copy process...",
                     printable(target.path));
      return std::nullopt;
    }
  }
  return targets;
}

// The digests into the settings; each destination whose digest differs from the source's to
// the delegate, its digest in the settings while it is reported.
void reportVerification(const CopyLanes::Digests& sums,
                        const std::vector<std::string>& destinations, plist::Dictionary& settings,
                        FileCopyDelegate* delegate) {
  settings.set("sourceChecksum", sums.source);
  plist::Array checksums;
  for (std::size_t i = 0; i < destinations.size(); ++i) {
    const std::string& checksum = sums.destinations[i];
    checksums.push_back(checksum);
    if (checksum != sums.source && delegate != nullptr &&
        delegate->respondsTo(Message::VerificationFailed)) {
      settings.set("destChecksum", checksum);
      delegate->fileCopyVerificationFailed(settings, destinations[i]);
    }
  }
  settings.set("destChecksums", std::move(checksums));
}

void copyAttributes(const std::string& source, const std::vector<std::string>& destinations) {
  auto attributes = FileAttributes::read(source);
  if (!attributes) {
    QVLog::console("Error getting metadata for file {}", printable(source));
    return;
  }
  for (const std::string& destination : destinations) {
    if (!attributes->applyTo(destination)) {
      QVLog::console("Error setting metadata for file {}", printable(destination));
    }
  }
}

} // namespace

QVFileCopier::QVFileCopier(Environment environment) : environment_(std::move(environment)) {}

QVFileCopier::~QVFileCopier() {
  std::list<Running> all;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    for (Running& running : running_) {
      running.operation->cancel();
    }
    all.swap(running_);
  }
  for (Running& running : all) {
    running.thread.join();
  }
}

bool QVFileCopier::ensureFolderOf(const std::string& source, const std::string& destination) const {
  const std::string folder = FileTree::split(destination).first;
  if (QVFileManager::fileExistsAtPath(folder) ||
      QVFileManager::createDirectory(folder, kFolderTimeout, nullptr, environment_.files)) {
    return true;
  }
  QVLog::console("Unable to copy file {} - destination directory {} doesn't exist. Aborting copy "
                 "process...",
                 printable(source), printable(folder));
  return false;
}

// ---- The streaming copy

bool QVFileCopier::copyFileWithProgress(const std::string& source,
                                        const std::vector<std::string>& destinations,
                                        VerificationType verificationType,
                                        const std::shared_ptr<FileCopyDelegate>& delegate,
                                        const plist::Value& object, const plist::Value& object2) {
  if (!QVFileManager::fileExistsAtPath(source)) {
    QVLog::console("Error: File {} doesn't exist. Aborting copy process...", printable(source));
    return false;
  }
  if (destinations.empty()) {
    QVLog::console("Error: You must have at least one destination. Aborting copy process...");
    return false;
  }
  for (const std::string& destination : destinations) {
    if (!ensureFolderOf(source, destination)) {
      return false;
    }
  }
  plist::Array destinationList(destinations.begin(), destinations.end());
  plist::Dictionary settings =
      settingsFor(source, "destinations", std::move(destinationList), delegate, object, object2);

  std::unique_ptr<platform::FileStream> input = environment_.streams.openForReading(source);
  if (!input) {
    QVLog::console("Error: Unable to read source file {}. Aborting copy process...",
                   printable(source));
    return false;
  }
  const auto sourceStatus = input->status();
  const std::uint64_t sourceSize = sourceStatus ? sourceStatus->size : 0;
  auto targets = openTargets(environment_.streams, destinations, sourceStatus);
  if (!targets) {
    return false;
  }

  // Declared after the streams, so that its threads stop using them before they close.
  std::unique_ptr<CopyLanes> lanes;
  try {
    std::vector<CopyLanes::Destination> outputs;
    for (Target& target : *targets) {
      outputs.push_back({target.path, *target.stream});
    }
    lanes = std::make_unique<CopyLanes>(
        verificationType == VerificationType::MD5    ? CopyLanes::Algorithm::MD5
        : verificationType == VerificationType::SHA1 ? CopyLanes::Algorithm::SHA1
                                                     : CopyLanes::Algorithm::None,
        std::move(outputs));
  } catch (const std::exception&) { // no memory for the blocks, or no thread for the lanes
    QVLog::console("Error copying file {} - out of memory", printable(source));
    return false;
  }

  std::uint64_t total = 0;
  std::uint64_t lastReport = 0;
  bool cancelled = false;
  for (;;) {
    const std::span<std::uint8_t> block = lanes->nextBlock();
    const platform::Transfer got = input->read(block);
    if (got.bytes == 0) {
      lanes->note(fmt::format("{} returned 0 bytes", printable(source)));
    } else {
      lanes->blockRead(got.bytes);
    }
    total += got.bytes;
    if (total - lastReport >= kReportInterval) {
      lastReport = total;
      if (delegate) {
        // What the delegate may look at is as a copy in step would have left it: every block
        // so far on every destination, and every console line so far printed.
        lanes->drain();
        if (delegate->respondsTo(Message::BytesWritten)) {
          delegate->fileCopyBytesWritten(total, settings);
        }
        if (delegate->respondsTo(Message::ShouldContinue) &&
            !delegate->fileCopyShouldContinue(settings)) {
          cancelled = true;
          break;
        }
      }
    }
    // A short block is the end of the source, or a read that failed: either way the last.
    if (got.bytes < block.size()) {
      break;
    }
  }

  std::optional<CopyLanes::Digests> sums;
  if (!cancelled) {
    sums = lanes->finish();
  }
  lanes.reset();
  input.reset();
  targets.reset();
  if (cancelled) {
    return false;
  }
  if (total < sourceSize) {
    QVLog::console("Error: copied file size does not match original source {}", printable(source));
    return false;
  }
  if (delegate && delegate->respondsTo(Message::BytesWritten)) {
    delegate->fileCopyBytesWritten(total, settings);
  }
  if (verificationType != VerificationType::None) {
    reportVerification(*sums, destinations, settings, delegate.get());
  }
  copyAttributes(source, destinations);
  if (delegate && delegate->respondsTo(Message::Finished)) {
    delegate->fileCopyFinished(settings);
  }
  return true;
}

bool QVFileCopier::copyFileWithProgress(const std::string& source, const std::string& destination,
                                        const std::shared_ptr<FileCopyDelegate>& delegate,
                                        const plist::Value& object, const plist::Value& object2) {
  return copyFileWithProgress(source, std::vector<std::string>{destination}, VerificationType::None,
                              delegate, object, object2);
}

// ---- The asynchronous copy

bool QVFileCopier::copyFileWithProgressOld(const std::string& source,
                                           const std::string& destination,
                                           const std::shared_ptr<FileCopyDelegate>& delegate,
                                           const plist::Value& object,
                                           const plist::Value& object2) {
  if (!QVFileManager::fileExistsAtPath(source)) {
    QVLog::console("Error: File {} doesn't exist. Aborting copy process...", printable(source));
    return false;
  }
  if (!ensureFolderOf(source, destination)) {
    return false;
  }
  auto operation = std::make_shared<FileOperation>(
      FileOperation::Environment{environment_.streams, environment_.files.clock,
                                 environment_.mainLoop},
      source, destination,
      settingsFor(source, "destination", destination, delegate, object, object2), delegate);
  std::list<Running> completed;
  bool scheduled = false;
  std::optional<std::system_error> notStarted;
  {
    std::lock_guard lock(mutex_);
    completed = takeCompletedLocked();
    scheduled = environment_.mainLoop && !stopping_;
    if (scheduled) {
      try {
        running_.push_back({operation, std::thread([operation] { operation->run(); })});
      } catch (const std::system_error& error) {
        notStarted = error;
      }
    }
  }
  joinAll(completed);
  if (!scheduled) {
    QVLog::console("Failed to schedule operation with run loop: {}", kParamErr);
    return false;
  }
  if (notStarted) {
    QVLog::console("Failed to begin asynchronous object copy: {}", notStarted->code().value());
    return false;
  }
  return true;
}

int QVFileCopier::cancelFileOperation(const plist::ObjectRef& operation) {
  auto handle = std::dynamic_pointer_cast<FileOperation>(operation);
  std::lock_guard lock(mutex_);
  for (Running& running : running_) {
    if (handle && running.operation == handle) {
      return handle->cancel() ? kNoErr : kParamErr;
    }
  }
  return kParamErr;
}

std::list<QVFileCopier::Running> QVFileCopier::takeCompletedLocked() {
  std::list<Running> completed;
  for (auto it = running_.begin(); it != running_.end();) {
    auto next = std::next(it);
    // A copy's own thread (delivering through an executor that runs in place) cannot join
    // itself: it stays for the next one to reap.
    if (it->operation->completed() && it->thread.get_id() != std::this_thread::get_id()) {
      completed.splice(completed.end(), running_, it);
    }
    it = next;
  }
  return completed;
}

void QVFileCopier::joinAll(std::list<Running>& finished) {
  for (Running& running : finished) {
    running.thread.join();
  }
}

} // namespace kestrin
