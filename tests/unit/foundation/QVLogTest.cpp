#include "foundation/QVLog.h"

#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/QVLocalPaths.h"
#include "foundation/QVSysInfo.h"
#include "plist/PropertyList.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using kestrin::testing::readText;
using kestrin::testing::TempDir;
using kestrin::testing::writeText;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// The message part of a "date - message" line.
std::string messageOf(const std::string& line) {
  auto dash = line.find(" - ");
  return dash == std::string::npos ? "" : line.substr(dash + 3);
}

std::vector<std::string> messagesIn(const fs::path& path) {
  std::vector<std::string> messages;
  for (const auto& line : linesOf(readText(path))) {
    messages.push_back(messageOf(line));
  }
  return messages;
}

bool contains(const std::vector<std::string>& messages, const std::string& message) {
  return std::find(messages.begin(), messages.end(), message) != messages.end();
}

class QVLogTest : public ::testing::Test {
protected:
  fs::path userDir() const { return home_ / "home/Library/Logs/Quorvane"; }
  fs::path rootDir() const { return home_ / "root/Library/Logs/Quorvane"; }
  fs::path prefs() const { return home_ / "home/Library/Preferences/com.quorvane.global.plist"; }
  fs::path userFile(int n) const { return userDir() / ("Test." + std::to_string(n) + ".log"); }

  QVLog::Config config() const {
    QVLog::Config c;
    c.userLogDirectory = userDir().string();
    c.rootLogDirectory = rootDir().string();
    c.globalPrefsPath = prefs().string();
    c.defaultAppName = "Test";
    c.bundleVersion = "100";
    c.executablePath = "/opt/Kestrin.app/Contents/MacOS/Kestrin";
    c.osVersion = "10.5.8";
    c.cpuCount = 4;
    c.ramGigabytes = 8;
    return c;
  }

  void setDisableLogging(plist::Value value) {
    fs::create_directories(prefs().parent_path());
    ASSERT_TRUE(plist::writeFile(prefs(), plist::Dictionary{{"disable-logging", value}}).ok());
  }

  TempDir home_;
};

TEST_F(QVLogTest, FreshFileStartsWithTheHeaderInOrder) {
  QVLog log(config());
  log.newLog("Test");
  log.log("first line");
  log.flush();

  auto lines = linesOf(readText(userFile(1)));
  ASSERT_EQ(lines.size(), 6u);
  std::regex dated(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4} - .*)");
  for (const auto& line : lines) {
    EXPECT_TRUE(std::regex_match(line, dated)) << line;
  }
  EXPECT_TRUE(messageOf(lines[0]).starts_with("Log started: "));
  EXPECT_EQ(messageOf(lines[1]), "Version: 100");
  EXPECT_EQ(messageOf(lines[2]), "Path: /opt/Kestrin.app/Contents/MacOS/Kestrin");
  EXPECT_EQ(messageOf(lines[3]), "System: OS X 10.5.8, 4 CPU(s), 8.00 GB RAM");
  EXPECT_EQ(messageOf(lines[4]), "Running in " + std::to_string(sizeof(void*) * 8) + "-bit mode");
  EXPECT_EQ(messageOf(lines[5]), "first line");
}

TEST_F(QVLogTest, RotatesFiveFilesAndDropsTheOldest) {
  QVLog log(config());
  for (int run = 1; run <= 6; ++run) {
    log.newLog("Test");
    log.log("run " + std::to_string(run));
    log.flush();
  }

  std::vector<std::string> expected;
  for (int n = 1; n <= 5; ++n) {
    expected.push_back(userFile(n).string());
    // File n holds run 7 - n: the newest is .1, run 1 went out with the sixth rotation.
    EXPECT_TRUE(contains(messagesIn(userFile(n)), "run " + std::to_string(7 - n))) << n;
    EXPECT_FALSE(contains(messagesIn(userFile(n)), "run 1")) << n;
  }
  EXPECT_FALSE(fs::exists(userFile(6)));
  EXPECT_EQ(log.logs(), expected);
}

TEST_F(QVLogTest, FirstNameGivenSticks) {
  QVLog log(config());
  EXPECT_EQ(log.appName(), "Test");
  log.newLog("Kestrin");
  log.newLog("Other");
  EXPECT_EQ(log.appName(), "Kestrin");
  EXPECT_EQ(log.currentLogPath(), (userDir() / "Kestrin.1.log").string());
  EXPECT_TRUE(fs::exists(userDir() / "Kestrin.2.log"));
  EXPECT_FALSE(fs::exists(userDir() / "Other.1.log"));
}

TEST_F(QVLogTest, LinePastTheSizeLimitIsKeptWholeAndTheNextStartsAFreshFile) {
  QVLog log(config());
  log.newLog("Test");
  const std::string filler(9990, 'x');
  for (int i = 0; i < 60; ++i) {
    log.logFast("line " + std::to_string(i) + " " + filler);
  }
  log.flush();

  // The line that crossed 500,000 bytes closed the file, which rotated to .2.
  std::string full = readText(userFile(2));
  ASSERT_GE(full.size(), 500000u);
  auto fullLines = linesOf(full);
  std::string last = fullLines.back();
  EXPECT_LT(full.size() - last.size() - 1, 500000u);
  EXPECT_TRUE(messageOf(last).ends_with(filler));

  auto fresh = messagesIn(userFile(1));
  ASSERT_GE(fresh.size(), 7u);
  EXPECT_TRUE(fresh[0].starts_with("Log started: "));
  EXPECT_EQ(fresh[4], "Running in " + std::to_string(sizeof(void*) * 8) + "-bit mode");
  EXPECT_EQ(fresh[5], "Log truncated at 500KB");

  // Every line exactly once, in order, across the two files.
  std::vector<std::string> numbered;
  for (const auto& lines : {fullLines, linesOf(readText(userFile(1)))}) {
    for (const auto& line : lines) {
      std::string message = messageOf(line);
      if (message.starts_with("line ")) {
        numbered.push_back(message.substr(0, message.find(' ', 5)));
      }
    }
  }
  ASSERT_EQ(numbered.size(), 60u);
  for (int i = 0; i < 60; ++i) {
    EXPECT_EQ(numbered[i], "line " + std::to_string(i));
  }
}

TEST_F(QVLogTest, WhiteSpaceOnlyMessagesWriteNothingAndOthersAreTrimmed) {
  QVLog log(config());
  log.newLog("Test");
  log.flush();
  auto before = fs::file_size(userFile(1));

  log.log("  \n\t ");
  log.logFast("\r\n");
  log.logAndPrint(" ");
  log.flush();
  EXPECT_EQ(fs::file_size(userFile(1)), before);

  log.log("  padded \n");
  log.flush();
  EXPECT_EQ(messagesIn(userFile(1)).back(), "padded");
}

TEST_F(QVLogTest, LogAndPrintWritesTheTrimmedLineToStandardOutputToo) {
  QVLog log(config());
  log.newLog("Test");
  ::testing::internal::CaptureStdout();
  log.logAndPrint("  100% done {literally}\n");
  std::string printed = ::testing::internal::GetCapturedStdout();
  log.flush();
  EXPECT_EQ(printed, "100% done {literally}\n");
  EXPECT_EQ(messagesIn(userFile(1)).back(), "100% done {literally}");
}

// A remote caller's text cannot start a line of its own or reach a terminal as a control
// sequence, whichever class-level call logs it; the format's own text is left alone.
TEST_F(QVLogTest, TextArgumentsAreEscapedSoNoCallerCanForgeALine) {
  auto log = std::make_unique<QVLog>(config());
  log->newLog("Test");
  QVLog* shared = log.get();
  QVLog::setSharedController(std::move(log));
  std::string hostile = "com.quorvane.Evil\n2001-01-01 00:00:00 +0000 - FORGED\x1b[2J\xff\u2028";
  QVLog::appendLog("Found application at path {} for bundle ID {}", "(null)", hostile);
  QVLog::fastAppendLog("File: {} ({} bytes)", std::string_view("a\tb"), 12);
  shared->flush();

  auto messages = messagesIn(userFile(1));
  EXPECT_EQ(messages[messages.size() - 2],
            "Found application at path (null) for bundle ID com.quorvane.Evil\\n2001-01-01 "
            "00:00:00 +0000 - FORGED\\x1b[2J\\xff\\u2028");
  EXPECT_EQ(messages.back(), "File: a\\tb (12 bytes)");
  // Text that was escaped already (as paths are) comes out unchanged, and so does plain text.
  EXPECT_EQ(QVLog::escaped("a\\nb \u00e9t\u00e9"), "a\\nb \u00e9t\u00e9");
}

TEST_F(QVLogTest, ShortLinesFromWorkerThreadsAreOnDiskWhenLogReturns) {
  QVLog log(config());
  log.newLog("Test");
  log.flush();

  std::vector<std::string> seen;
  std::thread worker([&] {
    for (int i = 0; i < 20; ++i) {
      std::string line = "worker step " + std::to_string(i);
      log.log(line);
      seen.push_back(contains(messagesIn(userFile(1)), line) ? "" : line);
    }
  });
  worker.join();
  for (const auto& missing : seen) {
    EXPECT_EQ(missing, "") << "not on disk when log() returned";
  }
}

TEST_F(QVLogTest, LinesFromManyThreadsAreAllWrittenInPerThreadOrder) {
  QVLog log(config());
  log.newLog("Test");
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kLines; ++i) {
        std::string line = "t" + std::to_string(t) + " " + std::to_string(i);
        // Mix waiting and non-waiting calls; both go through the same queue.
        if (i % 2 == 0) {
          log.log(line);
        } else {
          log.logFast(line);
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  log.flush();

  std::vector<int> next(kThreads, 0);
  for (const auto& message : messagesIn(userFile(1))) {
    if (message.empty() || message[0] != 't') {
      continue;
    }
    int t = std::stoi(message.substr(1));
    int i = std::stoi(message.substr(message.find(' ') + 1));
    ASSERT_EQ(i, next[t]) << "thread " << t;
    ++next[t];
  }
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(next[t], kLines) << "thread " << t;
  }
}

class DisableSwitch : public QVLogTest,
                      public ::testing::WithParamInterface<std::pair<plist::Value, bool>> {};

TEST_P(DisableSwitch, OnlyTheStringOneOrANumberEqualToTrueSwitchesLoggingOff) {
  auto [value, off] = GetParam();
  setDisableLogging(value);
  QVLog log(config());
  ::testing::internal::CaptureStdout();
  log.newLog("Test");
  std::string printed = ::testing::internal::GetCapturedStdout();
  log.log("a line");
  log.flush();

  EXPECT_EQ(log.loggingDisabled(), off);
  EXPECT_EQ(printed, off ? "Logging is disabled\n" : "");
  EXPECT_EQ(fs::exists(userFile(1)), !off);
  EXPECT_EQ(fs::exists(userDir()), !off);
}

INSTANTIATE_TEST_SUITE_P(
    Values, DisableSwitch,
    ::testing::Values(std::pair{plist::Value("1"), true}, std::pair{plist::Value(true), true},
                      std::pair{plist::Value(1), true}, std::pair{plist::Value("0"), false},
                      std::pair{plist::Value(0), false}, std::pair{plist::Value(false), false},
                      std::pair{plist::Value("yes"), false}),
    [](const auto& info) {
      const plist::Value& value = info.param.first;
      if (const std::string* text = value.asString()) {
        return "String_" + *text;
      }
      if (auto flag = value.asBool()) {
        return std::string(*flag ? "BooleanTrue" : "BooleanFalse");
      }
      return "Number_" + std::to_string(value.integerValue().value_or(-1));
    });

TEST_F(QVLogTest, AsRootTheCurrentFileIsInTheLocalDomainAndRotationInTheUsersFolder) {
  auto c = config();
  c.runningAsRoot = true;
  writeText(rootDir() / "Test.1.log", "root's previous run\n");
  writeText(userFile(1), "user's previous run\n");

  QVLog log(c);
  log.newLog("Test");
  log.log("as root");
  log.flush();

  EXPECT_EQ(log.currentLogPath(), (rootDir() / "Test.1.log").string());
  EXPECT_EQ(messagesIn(rootDir() / "Test.1.log").back(), "as root");
  // The existence test looked at root's file; the rotation moved the user's files.
  EXPECT_EQ(readText(userFile(2)), "user's previous run\n");
  EXPECT_FALSE(fs::exists(userFile(1)));
  EXPECT_EQ(log.logs(), std::vector<std::string>{userFile(2).string()});
}

TEST_F(QVLogTest, WithoutNewLogLinesGoToAnExistingCurrentFileOrTheConsole) {
  QVLog log(config());
  ::testing::internal::CaptureStderr();
  log.log("nowhere to go");
  log.flush();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Unable to log the following information: nowhere to go\n");

  writeText(userFile(1), "kept\n");
  log.log("appended");
  log.flush();
  EXPECT_EQ(messagesIn(userFile(1)), (std::vector<std::string>{"", "appended"}));
  EXPECT_TRUE(readText(userFile(1)).starts_with("kept\n"));
}

TEST_F(QVLogTest, UncreatableFolderIsReportedOnTheConsole) {
  writeText(home_ / "home/Library/Logs", "a file where the folder should be");
  QVLog log(config());
  ::testing::internal::CaptureStderr();
  log.newLog("Test");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Unable to create folder " + userDir().string() + ".\n");
}

TEST_F(QVLogTest, WillTerminateWritesWhatIsQueuedAndDropsLaterLines) {
  QVLog log(config());
  log.newLog("Test");
  log.logFast("before exit");
  log.willTerminate();
  log.log("after exit");
  log.willTerminate();

  auto messages = messagesIn(userFile(1));
  EXPECT_EQ(messages.back(), "before exit");
  EXPECT_FALSE(contains(messages, "after exit"));
}

TEST_F(QVLogTest, FoldersAndHeaderFactsComeFromThePathsTheSystemAndTheAgentsBundle) {
  QVLocalPaths::Machine machine;
  machine.localRoot = (home_ / "root").string();
  machine.home = (home_ / "home").string();
  machine.realUid = 1000;
  QVLocalPaths paths(machine);
  fs::path bundle = home_ / "root/Applications/Kestrin.app";
  fs::create_directories(bundle / "Contents/MacOS");
  ASSERT_TRUE(plist::writeFile(bundle / "Contents/Info.plist",
                               plist::Dictionary{{"CFBundleIdentifier", "com.quorvane.Kestrin"},
                                                 {"CFBundleVersion", "142"}})
                  .ok());
  std::string executable = (bundle / "Contents/MacOS/Kestrin").string();

  platform::SystemFacts facts;
  facts.systemVersion = std::array<unsigned, 3>{12, 11, 0};
  facts.processorCount = 8;
  facts.physicalMemoryMegabytes = 3072;
  auto c = QVLog::configFromPaths(paths, QVSysInfo(paths, facts), executable);
  EXPECT_EQ(c.userLogDirectory, userDir().string());
  EXPECT_EQ(c.rootLogDirectory, rootDir().string());
  EXPECT_EQ(c.globalPrefsPath, prefs().string());
  EXPECT_FALSE(c.runningAsRoot);
  EXPECT_EQ(c.osVersion, "12.11.0");
  EXPECT_EQ(c.cpuCount, 8);
  EXPECT_DOUBLE_EQ(c.ramGigabytes, 3.0);
  EXPECT_EQ(c.bundleVersion, "142");
  EXPECT_EQ(c.executablePath, executable);
  EXPECT_EQ(c.defaultAppName, "Kestrin");

  // Outside a bundle there is no version line; a machine that tells nothing gets the fallbacks.
  ::testing::internal::CaptureStderr();
  auto bare = QVLog::configFromPaths(paths, QVSysInfo(paths, platform::SystemFacts{}),
                                     (home_ / "bin/kestrin").string());
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(bare.bundleVersion, std::nullopt);
  EXPECT_EQ(bare.defaultAppName, "kestrin");
  EXPECT_EQ(bare.osVersion, "10.5.0");
  EXPECT_EQ(bare.cpuCount, 1);
  EXPECT_EQ(bare.ramGigabytes, 0);
}

TEST_F(QVLogTest, UncaughtExceptionIsLoggedAndFlushedBeforeAbort) {
  // The default death-test style forks, so the child logs into this test's folder.
  EXPECT_DEATH(
      {
        auto log = std::make_unique<QVLog>(config());
        log->newLog("Test");
        QVLog::setSharedController(std::move(log));
        std::thread([] { throw std::runtime_error("disk on fire"); }).join();
      },
      "");
  EXPECT_EQ(messagesIn(userFile(1)).back(), "disk on fire");
}

} // namespace
} // namespace kestrin
