#include "foundation/QVFileCopier.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <set>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CopyTestTools.h"
#include "fixtures/ThrowawayMachine.h"
#include "foundation/QVLog.h"
#include "foundation/RemoteFileCopyDelegate.h"
#include "platform/ManualClock.h"
#include "platform/ToolTable.h"
#include "support/NamedException.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::HookedStreams;
using testing::openDescriptors;
using testing::readText;
using testing::RecordingDelegate;
using testing::sha1OfFile;
using testing::writeNoise;
using testing::writeText;
using Message = FileCopyDelegate::Message;
using Type = QVFileCopier::VerificationType;
using Names = std::vector<std::string>;

constexpr std::uint64_t kMiB = 1 << 20;
// Just past the first progress report.
constexpr std::uint64_t kPastFirstReport = 40 * kMiB + 64 * 1024;
const std::vector<Message> kCopyMessages = {Message::BytesWritten, Message::ShouldContinue,
                                            Message::VerificationFailed, Message::Finished};

std::set<std::string> keysOf(const plist::Dictionary& dictionary) {
  auto keys = dictionary.keys();
  return {keys.begin(), keys.end()};
}

Names stringsOf(const plist::Value* array) {
  Names strings;
  for (const plist::Value& value :
       array != nullptr && array->asArray() ? *array->asArray() : plist::Array{}) {
    strings.push_back(value.asString() ? *value.asString() : "<not a string>");
  }
  return strings;
}

// An administrator's delegate on the far side of a connection: it answers the selectors it was
// given with the answers it was given, and its connection can die after a number of messages.
class ScriptedPeer final : public plist::RemoteObject {
public:
  ScriptedPeer(std::set<std::string> selectors, std::map<std::string, plist::Value> answers = {},
               std::size_t diesAfter = SIZE_MAX)
      : selectors_(std::move(selectors)), answers_(std::move(answers)), diesAfter_(diesAfter) {}

  std::string description() const override { return "<peer>"; }
  bool respondsTo(const std::string& selector) override {
    std::lock_guard lock(mutex_);
    failIfDead();
    return selectors_.count(selector) != 0;
  }
  plist::Value invoke(const std::string& selector, std::vector<plist::Value> arguments) override {
    std::lock_guard lock(mutex_);
    failIfDead();
    received_.push_back(selector);
    lastArguments_ = std::move(arguments);
    auto answer = answers_.find(selector);
    return answer != answers_.end() ? answer->second : plist::Value();
  }
  Names received() const {
    std::lock_guard lock(mutex_);
    return received_;
  }
  std::vector<plist::Value> lastArguments() const {
    std::lock_guard lock(mutex_);
    return lastArguments_;
  }
  // The settings a peer keeps name the peer itself as the delegate: a cycle to break.
  void forgetArguments() {
    std::lock_guard lock(mutex_);
    lastArguments_.clear();
  }

private:
  void failIfDead() const {
    if (received_.size() >= diesAfter_) {
      throw NamedException(std::string(kInvalidSendPortException), "connection went away");
    }
  }

  std::set<std::string> selectors_;
  std::map<std::string, plist::Value> answers_;
  std::size_t diesAfter_;
  mutable std::mutex mutex_;
  Names received_;
  std::vector<plist::Value> lastArguments_;
};

// The app's main loop as a test holds it: deliveries wait in a queue until the test runs them.
class QueuedLoop {
public:
  QVFileCopier::Executor executor() {
    return [this](std::function<void()> delivery) {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(delivery));
      changed_.notify_all();
    };
  }
  // Waits for `count` deliveries in the queue; the limit only keeps a broken copy from hanging
  // the test.
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 60s, [&] { return queue_.size() >= count; });
  }
  void runAll() {
    std::deque<std::function<void()>> queue;
    {
      std::lock_guard lock(mutex_);
      queue.swap(queue_);
    }
    for (auto& delivery : queue) {
      delivery();
    }
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_;
};

class QVFileCopierTest : public ::testing::Test {
protected:
  QVFileCopierTest() {
    fs::create_directories(work);
    // The shared log opens its file with its first line: before descriptors are counted.
    QVLog::appendLog("QVFileCopierTest");
  }

  std::string at(const std::string& relative) const { return (work / relative).string(); }

  // A streaming copy whose console lines are kept in `console`, and which must leave no
  // descriptor open.
  bool copy(const std::string& source, const Names& destinations, Type type,
            const std::shared_ptr<FileCopyDelegate>& delegate, const plist::Value& object = {},
            const plist::Value& object2 = {}) {
    const std::size_t before = openDescriptors();
    ::testing::internal::CaptureStderr();
    bool copied = false;
    try {
      copied = copier.copyFileWithProgress(source, destinations, type, delegate, object, object2);
    } catch (...) {
      console = ::testing::internal::GetCapturedStderr();
      EXPECT_EQ(openDescriptors(), before);
      throw;
    }
    console = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(openDescriptors(), before);
    return copied;
  }
  bool printed(const std::string& line) const {
    return console.find(line + "\n") != std::string::npos;
  }

  testing::ThrowawayMachine machine;
  fs::path work = machine.root() / "work";
  platform::ManualClock clock;
  platform::ToolTable tools;
  QVFileManager::Environment files{machine.paths(), tools, clock};
  HookedStreams streams;
  QVFileCopier copier{{.mainLoop = {}, .streams = streams, .files = files}};
  std::string console;
};

TEST_F(QVFileCopierTest, AnEmptySourceMakesEmptyDestinationsAndReportsZero) {
  writeText(work / "empty", "");
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  ASSERT_TRUE(copy(at("empty"), {at("a/one"), at("b/two")}, Type::SHA1, delegate, "job", 7));

  EXPECT_TRUE(printed(at("empty") + " returned 0 bytes")) << console;
  EXPECT_EQ(fs::file_size(work / "a/one"), 0u);
  EXPECT_EQ(fs::file_size(work / "b/two"), 0u);
  auto calls = delegate->calls();
  ASSERT_EQ(delegate->messages(), (std::vector{Message::BytesWritten, Message::Finished}));
  EXPECT_EQ(calls[0].total, 0u);
  const plist::Dictionary& settings = calls[1].settings;
  EXPECT_EQ(keysOf(settings),
            (std::set<std::string>{"source", "destinations", "operationtype", "delegate", "object",
                                   "object2", "sourceChecksum", "destChecksums"}));
  EXPECT_EQ(*settings.find("source"), plist::Value(at("empty")));
  EXPECT_EQ(stringsOf(settings.find("destinations")), (Names{at("a/one"), at("b/two")}));
  EXPECT_EQ(*settings.find("operationtype"), plist::Value("copy"));
  EXPECT_EQ(*settings.find("object"), plist::Value("job"));
  EXPECT_EQ(*settings.find("object2"), plist::Value(7));
  const std::string empty = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
  EXPECT_EQ(*settings.find("sourceChecksum"), plist::Value(empty));
  EXPECT_EQ(stringsOf(settings.find("destChecksums")), (Names{empty, empty}));
  // The delegate travels in the settings as an object that answers what it answers.
  plist::ObjectRef object = settings.find("delegate")->asObject();
  ASSERT_TRUE(object);
  EXPECT_TRUE(object->respondsTo("fileCopyFinished:"));
  EXPECT_FALSE(object->respondsTo("fileOperationProgress:"));
}

TEST_F(QVFileCopierTest, ReportsEveryFortyMebibytesAndOnceAtTheEndWithMatchingDigests) {
  writeNoise(work / "clip.mov", 100 * kMiB);
  fs::permissions(work / "clip.mov",
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
  const auto modified = fs::last_write_time(work / "clip.mov") - 24h;
  fs::last_write_time(work / "clip.mov", modified);
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  // Whatever runs beside the reader, each report finds everything read so far written.
  std::vector<std::pair<std::uintmax_t, std::uintmax_t>> sizes;
  delegate->onBytesWritten = [&](std::uint64_t) {
    sizes.emplace_back(fs::file_size(work / "work/clip.mov"),
                       fs::file_size(work / "backup/clip.mov"));
  };
  ASSERT_TRUE(
      copy(at("clip.mov"), {at("work/clip.mov"), at("backup/clip.mov")}, Type::SHA1, delegate));

  EXPECT_EQ(console.find("Error"), std::string::npos) << console;
  ASSERT_EQ(delegate->messages(),
            (std::vector{Message::BytesWritten, Message::ShouldContinue, Message::BytesWritten,
                         Message::ShouldContinue, Message::BytesWritten, Message::Finished}));
  auto calls = delegate->calls();
  // Whole blocks from a regular file: each report lands exactly on its boundary.
  EXPECT_EQ(calls[0].total, 40 * kMiB);
  EXPECT_EQ(calls[2].total, 80 * kMiB);
  EXPECT_EQ(calls[4].total, 100 * kMiB);
  EXPECT_EQ(sizes, (decltype(sizes){
                       {40 * kMiB, 40 * kMiB}, {80 * kMiB, 80 * kMiB}, {100 * kMiB, 100 * kMiB}}));
  const std::string digest = sha1OfFile(work / "clip.mov");
  const plist::Dictionary& settings = calls[5].settings;
  EXPECT_EQ(*settings.find("sourceChecksum"), plist::Value(digest));
  EXPECT_EQ(stringsOf(settings.find("destChecksums")), (Names{digest, digest}));
  EXPECT_FALSE(settings.contains("destChecksum"));
  for (const char* copied : {"work/clip.mov", "backup/clip.mov"}) {
    EXPECT_EQ(sha1OfFile(work / copied), digest) << copied;
    EXPECT_EQ(fs::status(work / copied).permissions(), fs::status(work / "clip.mov").permissions());
    EXPECT_EQ(fs::last_write_time(work / copied), modified);
  }
}

TEST_F(QVFileCopierTest, ADelegateThatSaysStopEndsTheCopyWithoutAnotherWord) {
  writeNoise(work / "source", kPastFirstReport);
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  delegate->keepGoing = false;
  EXPECT_FALSE(copy(at("source"), {at("copy")}, Type::SHA1, delegate));

  EXPECT_EQ(delegate->messages(), (std::vector{Message::BytesWritten, Message::ShouldContinue}));
  EXPECT_FALSE(printed("Error: copied file size does not match original source " + at("source")));
  EXPECT_EQ(fs::file_size(work / "copy"), 40 * kMiB);
}

TEST_F(QVFileCopierTest, TheVerificationTypeDecidesWhatIsReadBackAndDigested) {
  writeText(work / "abc", "abc");
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  // The one-destination form: no verification, nothing read back, no digests.
  ASSERT_TRUE(copier.copyFileWithProgress(at("abc"), at("plain"), delegate, "only"));
  EXPECT_EQ(streams.readBacks(), 0u);
  EXPECT_EQ(readText(work / "plain"), "abc");
  plist::Dictionary settings = delegate->calls().back().settings;
  EXPECT_EQ(keysOf(settings), (std::set<std::string>{"source", "destinations", "operationtype",
                                                     "delegate", "object"}));
  EXPECT_EQ(stringsOf(settings.find("destinations")), (Names{at("plain")}));

  const std::map<Type, std::string> knownAnswers = {
      {Type::MD5, "900150983cd24fb0d6963f7d28e17f72"},
      {Type::SHA1, "a9993e364706816aba3e25717850c26c9cd0d89d"}};
  for (const auto& [type, answer] : knownAnswers) {
    ASSERT_TRUE(copy(at("abc"), {at("checked")}, type, delegate));
    EXPECT_GT(streams.readBacks(), 0u);
    settings = delegate->calls().back().settings;
    EXPECT_EQ(*settings.find("sourceChecksum"), plist::Value(answer));
    EXPECT_EQ(stringsOf(settings.find("destChecksums")), (Names{answer}));
  }
}

TEST_F(QVFileCopierTest, AFolderThatCannotBeMadeStopsTheCopyBeforeAnyDestinationIsOpened) {
  writeText(work / "source", "new");
  writeText(work / "kept/old", "old");
  writeText(work / "plain-file", "not a folder");
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  EXPECT_FALSE(
      copy(at("source"), {at("kept/old"), at("plain-file/sub/new")}, Type::SHA1, delegate));

  EXPECT_TRUE(printed("Unable to copy file " + at("source") + " - destination directory " +
                      at("plain-file/sub") + " doesn't exist. Aborting copy process..."))
      << console;
  EXPECT_EQ(readText(work / "kept/old"), "old");
  EXPECT_TRUE(delegate->calls().empty());

  EXPECT_FALSE(copy(at("missing"), {at("x")}, Type::None, delegate));
  EXPECT_TRUE(printed("Error: File " + at("missing") + " doesn't exist. Aborting copy process..."));
  EXPECT_FALSE(copy(at("source"), {}, Type::None, delegate));
  EXPECT_TRUE(printed("Error: You must have at least one destination. Aborting copy process..."));
}

TEST_F(QVFileCopierTest, ADestinationCorruptedBeforeItsReadBackFailsVerification) {
  writeNoise(work / "source", 8 * kMiB);
  const std::uint64_t damaged = 5 * kMiB + 17;
  bool corrupted = false;
  // The second destination's disk loses a bit between the write and the read-back.
  streams.beforeReadAt = [&](const std::string& path, platform::FileStream& real,
                             std::uint64_t offset, std::size_t length) {
    if (path != at("two") || corrupted || damaged < offset || damaged >= offset + length) {
      return;
    }
    std::uint8_t byte = 0;
    ASSERT_EQ(real.readAt(damaged, {&byte, 1}).bytes, 1u);
    byte ^= 0x04;
    ASSERT_EQ(real.writeAt(damaged, {&byte, 1}).bytes, 1u);
    corrupted = true;
  };
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  EXPECT_TRUE(copy(at("source"), {at("one"), at("two")}, Type::SHA1, delegate));

  ASSERT_TRUE(corrupted);
  const std::string good = sha1OfFile(work / "source");
  const std::string bad = sha1OfFile(work / "two");
  ASSERT_NE(good, bad);
  ASSERT_EQ(delegate->messages(),
            (std::vector{Message::BytesWritten, Message::VerificationFailed, Message::Finished}));
  auto calls = delegate->calls();
  EXPECT_EQ(calls[1].file, at("two"));
  EXPECT_EQ(*calls[1].settings.find("destChecksum"), plist::Value(bad));
  EXPECT_EQ(*calls[1].settings.find("sourceChecksum"), plist::Value(good));
  EXPECT_EQ(stringsOf(calls[2].settings.find("destChecksums")), (Names{good, bad}));
}

TEST_F(QVFileCopierTest, ASourceThatShrinksOrStopsReadingIsAShortCopy) {
  // Cut down by another program while it is being copied.
  writeNoise(work / "shrinks", kPastFirstReport);
  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  delegate->onBytesWritten = [&](std::uint64_t) { fs::resize_file(work / "shrinks", kMiB); };
  EXPECT_FALSE(copy(at("shrinks"), {at("copy")}, Type::SHA1, delegate));
  EXPECT_TRUE(printed("Error: copied file size does not match original source " + at("shrinks")))
      << console;
  EXPECT_EQ(delegate->messages(), (std::vector{Message::BytesWritten, Message::ShouldContinue}));

  // On a drive that goes away: reads fail from some point on, and the copy does not go round
  // for ever waiting for an end that never comes.
  writeNoise(work / "vanishes", 8 * kMiB);
  streams.beforeRead = [&](const std::string& path, std::uint64_t offset) {
    return path == at("vanishes") && offset >= 3 * kMiB ? EIO : 0;
  };
  delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  EXPECT_FALSE(copy(at("vanishes"), {at("copy")}, Type::MD5, delegate));
  EXPECT_TRUE(printed(at("vanishes") + " returned 0 bytes"));
  EXPECT_TRUE(printed("Error: copied file size does not match original source " + at("vanishes")));
  EXPECT_EQ(fs::file_size(work / "copy"), 3 * kMiB);
  EXPECT_TRUE(delegate->calls().empty());
}

TEST_F(QVFileCopierTest, DestinationsThatCannotOrMustNotBeWrittenAreRefusedBeforeAnyIsEmptied) {
  writeNoise(work / "source", kMiB);
  const std::string digest = sha1OfFile(work / "source");
  writeText(work / "kept", "kept");
  fs::create_directories(work / "folder");
  fs::create_hard_link(work / "source", work / "same");
  fs::create_symlink(work / "kept", work / "alias");
  writeText(work / "locked", "locked");
  const bool root = ::geteuid() == 0;
  // Root writes whatever the permissions say: a locked file is what it cannot write.
  ASSERT_TRUE(root ? QVFileManager::lockFile(at("locked"))
                   : ::chmod(at("locked").c_str(), 0444) == 0);

  auto delegate = std::make_shared<RecordingDelegate>(kCopyMessages);
  // A folder; the source under its own name and another; a link, never written through; and a
  // file that cannot be written.
  for (const char* refused : {"folder", "source", "same", "alias", "locked"}) {
    EXPECT_FALSE(copy(at("source"), {at("kept"), at(refused)}, Type::SHA1, delegate)) << refused;
    EXPECT_TRUE(printed("Error: Unable to open destination file " + at(refused) +
                        ". Aborting copy process..."))
        << console;
    EXPECT_EQ(readText(work / "kept"), "kept") << refused;
    EXPECT_EQ(sha1OfFile(work / "source"), digest) << refused;
  }
  if (root) {
    QVFileManager::unlockFile(at("locked"));
  }
  EXPECT_TRUE(delegate->calls().empty());

  // The same destination twice gets the file once, and a digest for each time it was named.
  ASSERT_TRUE(copy(at("source"), {at("twice"), at("twice")}, Type::SHA1, delegate));
  EXPECT_EQ(sha1OfFile(work / "twice"), digest);
  EXPECT_EQ(stringsOf(delegate->calls().back().settings.find("destChecksums")),
            (Names{digest, digest}));
}

TEST_F(QVFileCopierTest, MisbehavingDelegatesStopTheCopyAndLeaveNothingOpen) {
  writeNoise(work / "source", kPastFirstReport);
  const std::set<std::string> copySelectors = {
      "fileCopyBytesWritten:settings:", "fileCopyShouldContinue:",
      "fileCopyVerificationFailed:file:", "fileCopyFinished:"};

  // A local delegate that throws: the exception reaches the caller once everything is closed.
  auto throwing = std::make_shared<RecordingDelegate>(kCopyMessages);
  throwing->onBytesWritten = [](std::uint64_t) { throw std::runtime_error("delegate broke"); };
  EXPECT_THROW(copy(at("source"), {at("copy")}, Type::SHA1, throwing), std::runtime_error);

  // A remote one whose answer is no boolean: not a yes.
  auto nonsense = std::make_shared<ScriptedPeer>(
      copySelectors,
      std::map<std::string, plist::Value>{{"fileCopyShouldContinue:", plist::Dictionary{}}});
  EXPECT_FALSE(copy(at("source"), {at("copy")}, Type::SHA1,
                    std::make_shared<RemoteFileCopyDelegate>(nonsense)));
  EXPECT_EQ(nonsense->received(),
            (Names{"fileCopyBytesWritten:settings:", "fileCopyShouldContinue:"}));
  EXPECT_FALSE(printed("Error: copied file size does not match original source " + at("source")));

  // A remote one whose connection dies after the first report: the peer's exception comes out.
  auto dying = std::make_shared<ScriptedPeer>(
      copySelectors, std::map<std::string, plist::Value>{{"fileCopyShouldContinue:", true}}, 1);
  try {
    copy(at("source"), {at("copy")}, Type::MD5, std::make_shared<RemoteFileCopyDelegate>(dying));
    ADD_FAILURE() << "the dead connection went unnoticed";
  } catch (const NamedException& exception) {
    EXPECT_EQ(exception.name(), kInvalidSendPortException);
  }

  // A remote one that answers only the end hears only the end, with the settings.
  auto quiet = std::make_shared<ScriptedPeer>(std::set<std::string>{"fileCopyFinished:"});
  ASSERT_TRUE(copy(at("source"), {at("copy")}, Type::SHA1,
                   std::make_shared<RemoteFileCopyDelegate>(quiet)));
  EXPECT_EQ(quiet->received(), (Names{"fileCopyFinished:"}));
  const auto arguments = quiet->lastArguments();
  ASSERT_EQ(arguments.size(), 1u);
  const plist::Dictionary* settings = arguments[0].asDictionary();
  ASSERT_NE(settings, nullptr);
  EXPECT_EQ(settings->find("delegate")->asObject(), quiet);
  EXPECT_EQ(sha1OfFile(work / "copy"), sha1OfFile(work / "source"));
  for (const auto& peer : {nonsense, dying, quiet}) {
    peer->forgetArguments();
  }
}

// ---- The asynchronous copy

class QVFileCopierAsynchronousTest : public QVFileCopierTest {
protected:
  QueuedLoop loop;
  QVFileCopier asynchronous{{.mainLoop = loop.executor(), .streams = streams, .files = files}};
};

TEST_F(QVFileCopierAsynchronousTest, StagesArriveOnlyThroughTheMainLoopOncePerSecondAndAtTheEnd) {
  const std::uint64_t size = 5 * kMiB + 1;
  writeNoise(work / "clip.mov", size);
  ::chmod(at("clip.mov").c_str(), 0640);
  // Every read of the source takes 0.4 seconds of the clock.
  streams.beforeRead = [&](const std::string& path, std::uint64_t) {
    if (path == at("clip.mov")) {
      clock.advanceSeconds(0.4);
    }
    return 0;
  };
  auto both = std::make_shared<RecordingDelegate>(
      std::vector{Message::OperationProgressWithHandle, Message::OperationProgress,
                  Message::OperationFinishedWithHandle, Message::OperationFinished});
  ASSERT_TRUE(
      asynchronous.copyFileWithProgressOld(at("clip.mov"), at("out/clip.mov"), both, "job", {}));
  ASSERT_TRUE(loop.waitFor(3));
  EXPECT_TRUE(both->calls().empty()) << "delivered before the main loop ran";
  loop.runAll();

  // Started; 1.2 seconds in, after three reads; done after the sixth, short, read.
  ASSERT_EQ(both->messages(),
            (std::vector{Message::OperationProgressWithHandle, Message::OperationProgressWithHandle,
                         Message::OperationFinishedWithHandle}));
  auto calls = both->calls();
  const std::vector<std::pair<std::int64_t, std::int64_t>> stages = {
      {2, 0}, {2, 3 * kMiB}, {3, size}};
  for (std::size_t i = 0; i < stages.size(); ++i) {
    const plist::Dictionary& status = calls[i].settings;
    EXPECT_EQ(status.find("stage")->asInteger(), stages[i].first) << i;
    EXPECT_EQ(status.find("BytesCompleted")->asInteger(), stages[i].second) << i;
    EXPECT_EQ(status.find("TotalBytes")->asInteger(), static_cast<std::int64_t>(size)) << i;
    EXPECT_EQ(*status.find("source"), plist::Value(at("clip.mov")));
    EXPECT_EQ(*status.find("destination"), plist::Value(at("out/clip.mov")));
    EXPECT_EQ(*status.find("object"), plist::Value("job"));
    EXPECT_FALSE(status.contains("object2"));
    EXPECT_FALSE(status.contains("Error"));
    EXPECT_EQ(calls[i].operation, calls[0].operation);
  }
  EXPECT_EQ(calls[0].settings.keys().front(), "stage");
  EXPECT_EQ(sha1OfFile(work / "out/clip.mov"), sha1OfFile(work / "clip.mov"));
  EXPECT_EQ(fs::status(work / "out/clip.mov").permissions(),
            fs::status(work / "clip.mov").permissions());

  // A delegate without the two-argument forms gets the others; a folder goes whole.
  streams.beforeRead = nullptr;
  writeText(work / "folder/a", "a");
  writeText(work / "folder/sub/b", "bb");
  auto alone = std::make_shared<RecordingDelegate>(
      std::vector{Message::OperationProgress, Message::OperationFinished});
  ASSERT_TRUE(asynchronous.copyFileWithProgressOld(at("folder"), at("copied"), alone, {}, {}));
  ASSERT_TRUE(loop.waitFor(2));
  loop.runAll();
  ASSERT_EQ(alone->messages(),
            (std::vector{Message::OperationProgress, Message::OperationFinished}));
  EXPECT_EQ(alone->calls()[1].settings.find("BytesCompleted")->asInteger(), 3);
  EXPECT_EQ(readText(work / "copied/sub/b"), "bb");
}

TEST_F(QVFileCopierTest, AnAsynchronousCopyCancelledThroughItsHandleLeavesNothing) {
  writeNoise(work / "source", 3 * kMiB);
  writeText(work / "taken", "taken");
  const std::size_t before = openDescriptors();
  {
    // Delivered in place, on the copy's own thread.
    QVFileCopier inPlace{{.mainLoop = [](std::function<void()> delivery) { delivery(); },
                          .streams = streams,
                          .files = files}};
    std::promise<void> finished;
    int cancelled = -1;
    plist::ObjectRef handle;
    auto delegate = std::make_shared<RecordingDelegate>(
        std::vector{Message::OperationProgressWithHandle, Message::OperationFinishedWithHandle});
    delegate->onStage = [&](const RecordingDelegate::Call& call) {
      if (call.message == Message::OperationProgressWithHandle && !handle) {
        handle = call.operation;
        cancelled = inPlace.cancelFileOperation(handle);
      } else if (call.message == Message::OperationFinishedWithHandle) {
        finished.set_value();
      }
    };
    ASSERT_TRUE(inPlace.copyFileWithProgressOld(at("source"), at("copy"), delegate, {}, {}));
    ASSERT_EQ(finished.get_future().wait_for(60s), std::future_status::ready);
    EXPECT_EQ(cancelled, QVFileCopier::kNoErr);
    EXPECT_EQ(delegate->calls().back().settings.find("Error")->asInteger(), ECANCELED);
    EXPECT_FALSE(fs::exists(work / "copy"));
    // Once complete, or never one of this copier's, a handle cancels nothing.
    EXPECT_EQ(inPlace.cancelFileOperation(handle), QVFileCopier::kParamErr);
    EXPECT_EQ(inPlace.cancelFileOperation(std::make_shared<ScriptedPeer>(std::set<std::string>{})),
              QVFileCopier::kParamErr);
    EXPECT_EQ(inPlace.cancelFileOperation(nullptr), QVFileCopier::kParamErr);

    // An object copy adds an item and replaces none.
    std::promise<plist::Dictionary> refused;
    delegate = std::make_shared<RecordingDelegate>(std::vector{Message::OperationFinished});
    delegate->onStage = [&](const RecordingDelegate::Call& call) {
      refused.set_value(call.settings);
    };
    ASSERT_TRUE(inPlace.copyFileWithProgressOld(at("source"), at("taken"), delegate, {}, {}));
    auto status = refused.get_future();
    ASSERT_EQ(status.wait_for(60s), std::future_status::ready);
    EXPECT_EQ(status.get().find("Error")->asInteger(), EEXIST);
    EXPECT_EQ(readText(work / "taken"), "taken");
  }
  EXPECT_EQ(openDescriptors(), before);

  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(copier.copyFileWithProgressOld(at("source"), at("elsewhere"), nullptr, {}, {}));
  EXPECT_FALSE(copier.copyFileWithProgressOld(at("missing"), at("elsewhere"), nullptr, {}, {}));
  console = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(printed("Failed to schedule operation with run loop: -50")) << console;
  EXPECT_TRUE(printed("Error: File " + at("missing") + " doesn't exist. Aborting copy process..."));
}

} // namespace
} // namespace kestrin
