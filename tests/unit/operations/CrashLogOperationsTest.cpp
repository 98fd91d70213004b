#include "operations/CrashLogOperations.h"

#include <future>
#include <set>
#include <thread>

#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/AgentProcess.h"
#include "fixtures/MakerTools.h"
#include "fixtures/RecordingObject.h"
#include "fixtures/ServicesHarness.h"
#include "foundation/QVFileManager.h"
#include "foundation/QVLog.h"
#include "support/NamedException.h"

// Crash reports and logs through the operation table, in-process over a throwaway machine with
// a fake Tovell and a clock the test moves.

namespace kestrin::operations {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using plist::Value;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::readText;
using testing::RecordingObject;
using ::testing::UnorderedElementsAreArray;
using testing::writeText;

constexpr const char* kAddLogs = "tovellAddLogs:hostName:";

// A delegate whose connection goes away after its first delivery.
class DyingDelegate : public RecordingObject {
public:
  DyingDelegate() : RecordingObject({kAddLogs}, "dying delegate") {}
  Value invoke(const std::string& selector, std::vector<Value> arguments) override {
    Value answer = RecordingObject::invoke(selector, std::move(arguments));
    die();
    return answer;
  }
};

// A delegate that raises what a reply time-out raises, to make the agent restart if it can.
class ThrowingDelegate : public RecordingObject {
public:
  ThrowingDelegate() : RecordingObject({kAddLogs}, "throwing delegate") {}
  Value invoke(const std::string& selector, std::vector<Value> arguments) override {
    RecordingObject::invoke(selector, std::move(arguments));
    throw NamedException(std::string(kPortTimeoutException), "not today");
  }
};

class CrashLogOperationsTest : public ::testing::Test {
protected:
  CrashLogOperationsTest() {
    // Tovell reads each report's first line as its cause. The mode file makes it hang, print
    // nothing, or print one line fewer than it was given reports.
    std::string dir = tovellDir().string();
    testing::makeMakerTool(harness.machine.root() / "Applications/Quorvane", "Tovell",
                           "com.quorvane.Tovell", plist::Array{}, 0,
                           "dir='" + dir +
                               "'\n"
                               "printf '%s\\n' \"$1\" >> \"$dir/runs\"\n"
                               "mode=$(cat \"$dir/mode\" 2>/dev/null)\n"
                               "case \"$1\" in\n"
                               "-cause)\n"
                               "  shift\n"
                               "  [ \"$mode\" = hang ] && exec sleep 300\n"
                               "  [ \"$mode\" = silent ] && exit 0\n"
                               "  [ \"$mode\" = short ] && shift\n"
                               "  for f in \"$@\"; do head -n 1 -- \"$f\"; done ;;\n"
                               "-analyze) printf '<html>%s</html>\\n' \"$3\" ;;\n"
                               "-submit) printf '%s|%s' \"$2\" \"$3\" > \"$dir/submitted\" ;;\n"
                               "esac");
    harness.errorChannel.setErrorCallback(callback);
  }

  fs::path tovellDir() const { return harness.machine.root() / "Applications/Quorvane"; }
  fs::path userLogs() const { return harness.machine.home() / "Library/Logs"; }
  fs::path localLogs() const { return harness.machine.root() / "Library/Logs"; }
  void mode(const std::string& how) { writeText(tovellDir() / "mode", how); }
  std::vector<std::string> tovellRuns() const {
    std::vector<std::string> runs;
    std::istringstream text(readText(tovellDir() / "runs"));
    for (std::string line; std::getline(text, line);) {
      runs.push_back(line);
    }
    return runs;
  }

  // A report whose first line, Tovell's cause for it, is "<name> crashed".
  fs::path report(const fs::path& folder, const std::string& name) {
    fs::create_directories(folder);
    writeText(folder / name, name + " crashed\nThread 0 Crashed\n");
    return folder / name;
  }
  Value since(const Value& date, const std::shared_ptr<RecordingObject>& delegate) {
    return harness.call("crashLogsSinceDate:delegate:",
                        {date, delegate ? Value(plist::ObjectRef(delegate)) : Value()});
  }
  // The sizes of the batches the delegate received, and every record in them.
  static std::vector<std::size_t> batchSizes(const RecordingObject& delegate) {
    std::vector<std::size_t> sizes;
    for (const auto& call : delegate.calls()) {
      sizes.push_back(call.arguments.at(0).asArray()->size());
    }
    return sizes;
  }
  static std::vector<plist::Dictionary> records(const RecordingObject& delegate) {
    std::vector<plist::Dictionary> all;
    for (const auto& call : delegate.calls()) {
      for (const Value& record : *call.arguments.at(0).asArray()) {
        all.push_back(*record.asDictionary());
      }
    }
    return all;
  }
  static std::vector<std::string> filenames(const RecordingObject& delegate) {
    std::vector<std::string> names;
    for (const auto& record : records(delegate)) {
      names.push_back(*record.find("filename")->asString());
    }
    return names;
  }
  // What the error callbacks received, as "selector first-argument" lines.
  std::vector<std::string> posted() const {
    std::vector<std::string> lines;
    for (const auto& call : callback->calls()) {
      const Value& first = call.arguments.at(0);
      lines.push_back(call.selector + " " +
                      (first.asError()    ? std::to_string(first.asError()->code)
                       : first.asString() ? *first.asString()
                                          : plist::describe(first)));
    }
    return lines;
  }
  bool logged(const std::string& text) {
    return harness.machine.logText().find(text) != std::string::npos;
  }
  std::shared_ptr<RecordingObject> delegate() {
    return std::make_shared<RecordingObject>(std::set<std::string>{kAddLogs}, "delegate");
  }

  testing::ServicesHarness harness;
  std::shared_ptr<RecordingObject> callback =
      std::make_shared<RecordingObject>(testing::errorCallbackSelectors());
};

TEST_F(CrashLogOperationsTest, TwentyThreeReportsArriveAsTenTenAndThreeCompleteRecords) {
  std::set<std::string> expected;
  for (int i = 0; i < 10; ++i) {
    expected.insert(report(userLogs() / "CrashReporter", fmt::format("Motion_{:02}.crash", i)));
  }
  for (int i = 0; i < 8; ++i) {
    expected.insert(report(localLogs() / "CrashReporter", fmt::format("Color_{}.crash", i)));
  }
  for (int i = 0; i < 5; ++i) {
    expected.insert(
        report(localLogs() / "DiagnosticReports", fmt::format("Compressor_{}.crash", i)));
  }
  // Not the video applications' reports: another program's, a log, the agent's own, a folder.
  report(userLogs() / "CrashReporter", "Safari_1.crash");
  report(userLogs() / "CrashReporter", "Motion_1.log");
  report(userLogs() / "CrashReporter", "Kestrin_2026-11-23-120000_studio.crash");
  fs::create_directories(userLogs() / "DiagnosticReports/Motion_folder.crash");

  auto receiver = delegate();
  since(Value(), receiver);
  EXPECT_THAT(batchSizes(*receiver), ElementsAre(10, 10, 3));
  auto names = filenames(*receiver);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
  EXPECT_EQ(names.size(), 23u);
  for (const auto& call : receiver->calls()) {
    EXPECT_EQ(call.arguments.at(1), Value("studio-4.local."));
  }
  plist::Dictionary first = records(*receiver).front();
  std::string path = *first.find("filename")->asString();
  EXPECT_EQ(first.keys(),
            (std::vector<std::string>{"hostname", "filename", "date", "cause", "app"}));
  EXPECT_EQ(*first.find("hostname"), Value("studio-4.local."));
  EXPECT_EQ(*first.find("cause"), Value(fs::path(path).filename().string() + " crashed"));
  EXPECT_EQ(*first.find("app"), Value(path.find("Motion_") != std::string::npos  ? "Motion"
                                      : path.find("Color_") != std::string::npos ? "Color"
                                                                                 : "Compressor"));
  EXPECT_EQ(*first.find("date"), Value(*QVFileManager::creationDateForFile(path)));
  EXPECT_THAT(tovellRuns(), ElementsAre("-cause", "-cause", "-cause"));
  EXPECT_TRUE(logged("Found application at path " +
                     (tovellDir() / "Tovell.app/Contents/MacOS/Tovell").string() +
                     " for bundle ID com.quorvane.Tovell"));
  EXPECT_THAT(posted(), IsEmpty());
}

TEST_F(CrashLogOperationsTest, OnlyReportsNewerThanTheDateCountAndTheFirstFolderWins) {
  fs::path old = report(userLogs() / "CrashReporter", "Motion_old.crash");
  plist::Date cut = *QVFileManager::creationDateForFile(old);
  // Birth times come from the kernel's coarse clock: later means a few ticks later.
  std::this_thread::sleep_for(30ms);
  fs::path saved = report(userLogs() / "CrashReporter/Tovell Saved Logs", "Motion_twice.crash");
  report(userLogs() / "CrashReporter", "Motion_twice.crash");
  fs::path local = report(localLogs() / "DiagnosticReports", "Motion_local.crash");

  auto sinceCut = delegate();
  since(Value(cut), sinceCut);
  EXPECT_THAT(filenames(*sinceCut), UnorderedElementsAreArray({saved.string(), local.string()}));

  auto all = delegate();
  since(Value(), all);
  EXPECT_EQ(filenames(*all).size(), 3u);

  auto future = delegate();
  since(Value(plist::Date::fromUnix(::time(nullptr) + 86400.0)), future);
  EXPECT_THAT(future->calls(), IsEmpty());
  EXPECT_THAT(posted(), IsEmpty());
}

TEST_F(CrashLogOperationsTest, WithoutADelegateReportsAreExaminedAndNothingIsDelivered) {
  for (int i = 0; i < 12; ++i) {
    report(userLogs() / "CrashReporter", fmt::format("Final Cut Pro_{}.crash", i));
  }
  since(Value(), nullptr);
  EXPECT_THAT(tovellRuns(), ElementsAre("-cause", "-cause"));
  EXPECT_THAT(posted(), IsEmpty());
}

TEST_F(CrashLogOperationsTest, TheNameRuleIsExactAndHostileNamesTravelIntactOrNotAtAll) {
  fs::path folder = userLogs() / "CrashReporter";
  std::set<std::string> kept;
  for (const char* name :
       {"Adobe Premiere Pro 2.crash", "adobe premiere pro.CRASH", "FINAL CUT PRO_x.crash",
        "AvidMediaComposer_1.crash", "CodecFamily32Tool_a.crash", "Motion_new\nline.crash",
        "Motion_a:b.crash", "Final Cut Pro Trial_1.crash"}) {
    kept.insert(report(folder, name));
  }
  for (const char* name :
       {"Final Cut Pro.crash", "Motion_x.crash.gz", "Motion.crash", "XMotion_1.crash"}) {
    report(folder, name);
  }
  report(folder, "Motion_\xff\xfe.crash"); // not UTF-8: cannot travel as text
  fs::create_symlink(folder / "Motion_a:b.crash", folder / "Motion_link.crash");
  ASSERT_EQ(::mkfifo((folder / "Motion_fifo.crash").c_str(), 0600), 0);

  auto receiver = delegate();
  since(Value(), receiver);
  auto names = filenames(*receiver);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), kept);
  EXPECT_EQ(names.size(), kept.size());
  EXPECT_TRUE(logged("its name is not UTF-8"));

  auto app = [&](const std::string& path) {
    return harness.call("appNameFromCrashLogFilename:", {Value(path)});
  };
  EXPECT_EQ(app("/x/Motion_2026-11-23.crash"), Value("Motion"));
  EXPECT_EQ(app("/x/Adobe Premiere Pro 2.crash"), Value("Adobe Premiere Pro 2.crash"));
  EXPECT_EQ(app("/x/_lead.crash"), Value("_lead.crash"));
  EXPECT_EQ(app("Motion_1.crash"), Value("Motion"));
}

TEST_F(CrashLogOperationsTest, AFailingDelegateEndsItsDeliveryWithoutRestartingTheService) {
  for (int i = 0; i < 23; ++i) {
    report(userLogs() / "CrashReporter", fmt::format("Motion_{:02}.crash", i));
  }
  auto deaf = std::make_shared<RecordingObject>(std::set<std::string>{"ping"}, "deaf delegate");
  since(Value(), deaf);
  EXPECT_THAT(posted(), ElementsAre("addStringToQueue:userInfo: Delegate does not respond to "
                                    "selector."));
  EXPECT_THAT(tovellRuns(), IsEmpty());

  auto dying = std::make_shared<DyingDelegate>();
  since(Value(), dying);
  EXPECT_THAT(batchSizes(*dying), ElementsAre(10));
  EXPECT_EQ(tovellRuns().size(), 2u); // the second batch was made, then could not be sent

  auto throwing = std::make_shared<ThrowingDelegate>();
  since(Value(), throwing);
  EXPECT_EQ(throwing->calls().size(), 1u);
  EXPECT_TRUE(logged("NSPortTimeoutException - not today"));
  EXPECT_EQ(harness.reconnects, 0);
  EXPECT_EQ(harness.call("appNameFromCrashLogFilename:", {Value("/a/Color_1.crash")}),
            Value("Color"));
}

TEST_F(CrashLogOperationsTest, TovellMissingShortSilentOrHungYieldsNoRecords) {
  for (int i = 0; i < 23; ++i) {
    report(userLogs() / "CrashReporter", fmt::format("Motion_{:02}.crash", i));
  }
  fs::path one = userLogs() / "CrashReporter/Motion_00.crash";
  Value files(plist::Array{one.string(), (userLogs() / "CrashReporter/Motion_01.crash").string()});

  // One line fewer than reports: every batch is dropped whole.
  mode("short");
  auto receiver = delegate();
  since(Value(), receiver);
  EXPECT_THAT(receiver->calls(), IsEmpty());
  EXPECT_TRUE(harness.call("crashLogObjectsForFiles:", {files}).isNull());

  mode("silent");
  EXPECT_TRUE(
      harness.call("crashLogObjectsForFiles:", {Value(plist::Array{one.string()})}).isNull());

  mode("");
  Value made = harness.call("crashLogObjectsForFiles:", {files});
  ASSERT_NE(made.asArray(), nullptr);
  EXPECT_EQ(*made.asArray()->at(1).get("cause"), Value("Motion_01.crash crashed"));

  // Hung: the fifteen-second limit on the agent's clock ends it.
  mode("hang");
  auto hung = std::async(std::launch::async,
                         [&] { return harness.call("crashLogObjectsForFiles:", {files}); });
  ASSERT_TRUE(testing::eventually([&] { return harness.timer.pending() > 0; }));
  harness.clock.advance(14s);
  harness.timer.waitUntilIdle();
  EXPECT_EQ(hung.wait_for(100ms), std::future_status::timeout);
  harness.clock.advance(1s);
  ASSERT_EQ(hung.wait_for(20s), std::future_status::ready);
  EXPECT_TRUE(hung.get().isNull());

  fs::remove_all(tovellDir() / "Tovell.app");
  since(Value(), receiver);
  EXPECT_TRUE(harness.call("tovellGetDefinition:", {Value(one.string())}).isNull());
  EXPECT_THAT(posted(),
              ElementsAre("addErrorToQueue:userInfo: 1000", "addErrorToQueue:userInfo: 1000"));
  EXPECT_EQ(*callback->calls().at(0).arguments.at(0).asError()->userInfo.find("info"),
            Value("com.quorvane.Tovell"));
  EXPECT_TRUE(logged("Unable to locate Tovell application"));
}

TEST_F(CrashLogOperationsTest, TovellExplainsSubmitsAndTrashesOnlyReportsOfTheCrashFolders) {
  fs::path motion = report(localLogs() / "DiagnosticReports", "Motion_1.crash");
  EXPECT_EQ(harness.call("tovellGetDefinition:", {Value(motion.string())}),
            Value("<html>" + motion.string() + "</html>\n"));
  EXPECT_TRUE(harness.call("tovellGetDefinition:", {Value()}).isNull());
  EXPECT_TRUE(logged("Crash log filename is invalid."));

  harness.call("tovellSubmitCrashLog:comment:", {Value(motion.string()), Value()});
  EXPECT_EQ(readText(tovellDir() / "submitted"), motion.string() + "|");
  harness.call("tovellSubmitCrashLog:comment:", {Value(motion.string()), Value("it froze")});
  EXPECT_EQ(readText(tovellDir() / "submitted"), motion.string() + "|it froze");

  // Elsewhere, through "..", through a link to another folder, with a NUL: refused, untouched.
  fs::path outside = harness.machine.home() / "Documents/Motion_9.crash";
  writeText(outside, "mine\n");
  fs::create_directories(userLogs() / "CrashReporter");
  fs::create_directory_symlink(harness.machine.home() / "Documents",
                               userLogs() / "CrashReporter/elsewhere");
  std::vector<std::string> refused = {
      outside.string(),
      (userLogs() / "CrashReporter/../../Documents/Motion_9.crash").string(),
      (userLogs() / "CrashReporter/elsewhere/Motion_9.crash").string(),
      (localLogs() / "DiagnosticReports").string() + std::string("\0/x/Motion_9.crash", 18),
      "Motion_1.crash",
      (localLogs() / "DiagnosticReports/..").string()};
  std::size_t runs = tovellRuns().size();
  for (const std::string& path : refused) {
    EXPECT_TRUE(harness.call("tovellGetDefinition:", {Value(path)}).isNull()) << path;
    EXPECT_EQ(harness.call("tovellRemoveLogFilename:", {Value(path)}), Value(false)) << path;
    EXPECT_TRUE(harness.call("crashLogObjectsForFiles:", {Value(plist::Array{path})}).isNull());
    EXPECT_TRUE(harness.call("fcsCrashLog:", {Value(path)}).isNull());
  }
  EXPECT_EQ(tovellRuns().size(), runs);
  EXPECT_TRUE(fs::exists(outside));
  EXPECT_TRUE(fs::exists(localLogs() / "DiagnosticReports"));

  fs::create_directories(localLogs() / "DiagnosticReports/Motion_2.crash");
  EXPECT_EQ(harness.call("tovellRemoveLogFilename:",
                         {Value((localLogs() / "DiagnosticReports/Motion_2.crash").string())}),
            Value(false));
  EXPECT_EQ(harness.call("tovellRemoveLogFilename:", {Value(motion.string())}), Value(true));
  EXPECT_FALSE(fs::exists(motion));
  EXPECT_TRUE(fs::exists(harness.machine.home() / ".Trash/Motion_1.crash"));
}

TEST_F(CrashLogOperationsTest, ReadingALogAnswersItsTextOrNullAndSaysWhyWhenItIsMissing) {
  fs::path quorvane = userLogs() / "Quorvane";
  fs::path reports = userLogs() / "CrashReporter";
  writeText(quorvane / "Kestrin.2.log", "older log\n");
  writeText(reports / "Kestrin_2026-11-23-120000_studio.crash", "Thread 0 Crashed\n");
  writeText(quorvane / "Binary.log", std::string("\xff\xfe\x00", 3));
  writeText(quorvane / "notes.txt", "not a log\n");
  fs::create_directories(quorvane / "folder.log");
  fs::create_symlink(harness.machine.home() / ".profile", quorvane / "linked.log");
  writeText(reports / "Motion_1.crash", "Motion\n");

  auto log = [&](const fs::path& path) {
    return harness.call("logWithFilename:", {Value(path.string())});
  };
  EXPECT_EQ(log(quorvane / "Kestrin.2.log"), Value("older log\n"));
  EXPECT_EQ(log(reports / "Kestrin_2026-11-23-120000_studio.crash"), Value("Thread 0 Crashed\n"));
  EXPECT_TRUE(log(quorvane / "Binary.log").isNull());
  EXPECT_TRUE(log(quorvane / "folder.log").isNull());
  EXPECT_TRUE(log(quorvane / "linked.log").isNull());
  EXPECT_THAT(posted(), IsEmpty()); // present but unreadable as text: null, nothing posted

  EXPECT_TRUE(log(quorvane / "Kestrin.9.log").isNull());
  EXPECT_TRUE(log(quorvane / "notes.txt").isNull());
  EXPECT_TRUE(log(reports / "Motion_1.crash").isNull()); // a report, not one of the agent's
  EXPECT_TRUE(log("/etc/passwd").isNull());
  EXPECT_TRUE(harness.call("logWithFilename:", {Value()}).isNull());
  EXPECT_EQ(harness.call("fcsCrashLog:", {Value((reports / "Motion_1.crash").string())}),
            Value("Motion\n"));
  EXPECT_TRUE(
      harness.call("fcsCrashLog:", {Value((reports / "Motion_2.crash").string())}).isNull());
  std::string missing = (quorvane / "Kestrin.9.log").string();
  EXPECT_THAT(
      posted(),
      ElementsAre("addStringToQueue:userInfo: Unable to get log " + missing +
                      " - file doesn't exist.",
                  "addStringToQueue:userInfo: Unable to get log " +
                      (quorvane / "notes.txt").string() + " - not one of the agent's logs.",
                  "addStringToQueue:userInfo: Unable to get log " +
                      (reports / "Motion_1.crash").string() + " - not one of the agent's logs.",
                  "addStringToQueue:userInfo: Unable to get log /etc/passwd - not one of the "
                  "agent's logs.",
                  "addStringToQueue:userInfo: Unable to get log (null) - not one of the agent's "
                  "logs.",
                  "addStringToQueue:userInfo: Unable to load crash log for file " +
                      (reports / "Motion_2.crash").string() + " - file doesn't exist"));
}

TEST_F(CrashLogOperationsTest, TheAgentsLogsAreListedAndGatheredUserFirstThenLocal) {
  QVLog::finishWriting();
  fs::path userLog = userLogs() / "Quorvane/Kestrin.1.log"; // the machine's own, in use
  fs::path userReport = report(userLogs() / "CrashReporter", "Kestrin_2026-11-22-090000_s.crash");
  fs::path localLog = localLogs() / "Quorvane/Kestrin.1.log";
  writeText(localLog, "as root\n");
  fs::path localReport = report(localLogs() / "CrashReporter", "Kestrin_2026-11-21-090000_s.crash");
  report(localLogs() / "CrashReporter", "Motion_1.crash");
  report(localLogs() / "CrashReporter", "kestrin_lower.crash");
  writeText(localLogs() / "Quorvane/Kestrin.1.log.gz", "x");
  writeText(localLogs() / "Quorvane/huge.log",
            std::string(CrashLogOperations::kFileLimit + 1, 'x'));

  Value listed = harness.call("populateQVLogFilenames");
  EXPECT_EQ(listed, Value(plist::Array{userLog.string(), userReport.string(), localLog.string(),
                                       (localLogs() / "Quorvane/huge.log").string(),
                                       localReport.string()}));
  Value gathered = harness.call("gatherLogs");
  ASSERT_NE(gathered.asDictionary(), nullptr);
  EXPECT_EQ(gathered.asDictionary()->keys(),
            (std::vector<std::string>{userLog.string(), userReport.string(), localLog.string(),
                                      localReport.string()}));
  EXPECT_EQ(*gathered.get(localLog.string()),
            Value(plist::Data{'a', 's', ' ', 'r', 'o', 'o', 't', '\n'}));
  EXPECT_TRUE(logged("huge.log: it is larger than 4194304 bytes"));
}

TEST_F(CrashLogOperationsTest, GatheringFindsNothingOrIsCancelledAndAnswersNull) {
  // The log of this test goes elsewhere, so that the machine holds no log at all.
  testing::TempDir elsewhere;
  QVLog::Config config = QVLog::configFromPaths(harness.machine.paths());
  config.userLogDirectory = (elsewhere.path() / "logs").string();
  QVLog::setSharedController(std::make_unique<QVLog>(config));
  QVLog::createNewLog(std::string("Kestrin"));
  fs::remove_all(userLogs() / "Quorvane");

  EXPECT_TRUE(harness.call("gatherLogs").isNull());
  QVLog::finishWriting();
  EXPECT_NE(readText(elsewhere.path() / "logs/Kestrin.1.log").find("No logs found."),
            std::string::npos);

  for (int i = 0; i < 2000; ++i) {
    writeText(localLogs() / fmt::format("Quorvane/Kestrin.{}.log", i), "line\n");
  }
  // The flag is cleared on entry: keep setting it until the gathering has seen it.
  std::atomic<bool> done{false};
  std::thread canceller([&] {
    while (!done) {
      harness.call("cancelProcessing");
    }
  });
  Value gathered = harness.call("gatherLogs");
  done = true;
  canceller.join();
  EXPECT_TRUE(gathered.isNull());
}

TEST_F(CrashLogOperationsTest, ConsolidationRefusesWrongCredentialsAndAStrayEndReportsNothing) {
  harness.call("consolidateCrashLogs:", {Value()});
  harness.call("consolidateCrashLogs:",
               {Value(plist::Dictionary{{"authUser", "nobody-at-all"},
                                        {"authPass", plist::Data{1, 2, 3}}})});
  EXPECT_THAT(posted(),
              ElementsAre("addErrorToQueue:userInfo: 1006", "addErrorToQueue:userInfo: 1006"));
  EXPECT_TRUE(logged("Consolidating crash logs..."));
  EXPECT_TRUE(logged("Unable to authorize. Username and password may be incorrect."));

  report(userLogs() / "CrashReporter", "Motion_1.crash");
  harness.call("consolidateCrashLogsDidFinish:", {Value()});
  EXPECT_THAT(tovellRuns(), IsEmpty());
  EXPECT_EQ(posted().size(), 2u);
  EXPECT_NE(harness.call("systemSpecs").get("OS X Version"), nullptr);
}

} // namespace
} // namespace kestrin::operations
