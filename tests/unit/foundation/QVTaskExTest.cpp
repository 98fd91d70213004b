#include "foundation/QVTaskEx.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <set>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fixtures/TempDir.h"
#include "unit/foundation/TaskTestTools.h"

namespace kestrin {
namespace {

using kestrin::testing::CapturedLog;
using kestrin::testing::TempDir;
using kestrin::testing::writeScript;

plist::Data bytes(std::string_view text) {
  return plist::Data(text.begin(), text.end());
}

std::string text(const std::optional<plist::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : std::string("<null>");
}

class QVTaskExTest : public ::testing::Test {
protected:
  TempDir dir;
  CapturedLog log;
};

// ---- output

TEST_F(QVTaskExTest, AnswersStandardOutputAndIgnoresStandardErrorWhenBothAreWritten) {
  auto tool = writeScript(dir, "both", "echo out; echo err >&2");
  EXPECT_EQ(text(QVTaskEx::dataFromTask(tool)), "out\n");
}

TEST_F(QVTaskExTest, AToolWritingOnlyToStandardErrorAnswersItsErrorText) {
  auto tool = writeScript(dir, "erronly", "echo 'no such cluster' >&2; exit 1");
  EXPECT_EQ(text(QVTaskEx::dataFromTask(tool)), "no such cluster\n");
  EXPECT_EQ(QVTaskEx::stringFromTask(tool), "no such cluster\n");
}

TEST_F(QVTaskExTest, ASilentToolAnswersEmptyBytesNotNull) {
  auto tool = writeScript(dir, "silent", "exit 0");
  auto data = QVTaskEx::dataFromTask(tool);
  ASSERT_TRUE(data.has_value());
  EXPECT_TRUE(data->empty());
}

TEST_F(QVTaskExTest, WithoutLogOutputOnlyStandardErrorIsCollected) {
  auto both = writeScript(dir, "both", "echo to-agent-stdout; echo err >&2");
  auto outOnly = writeScript(dir, "outonly", "echo to-agent-stdout");
  EXPECT_EQ(text(QVTaskEx::dataFromTask(both, {}, nullptr, std::nullopt, false)), "err\n");
  EXPECT_FALSE(QVTaskEx::dataFromTask(outOnly, {}, nullptr, std::nullopt, false).has_value());
}

TEST_F(QVTaskExTest, PassesArgumentsVerbatimAndReplacesTheEnvironmentWhenGiven) {
  auto tool =
      writeScript(dir, "args", R"(for a in "$@"; do echo "[$a]"; done; echo "$ONLY|$HOME")");
  EXPECT_EQ(text(QVTaskEx::dataFromTask(tool, {"two words", "", "$HOME"}, nullptr,
                                        QVTaskEx::Environment{{"ONLY", "x"}})),
            "[two words]\n[]\n[$HOME]\nx|\n");
  // Without an environment the child inherits the agent's.
  EXPECT_EQ(text(QVTaskEx::dataFromTask(tool)), std::string("|") + std::getenv("HOME") + "\n");
}

TEST_F(QVTaskExTest, StandardInputIsAtEndOfFileSoAToolReadingItFinishes) {
  auto tool = writeScript(dir, "reader", "cat; echo done");
  EXPECT_EQ(text(QVTaskEx::dataFromTask(tool)), "done\n");
}

TEST_F(QVTaskExTest, FiftyMegabytesOnEachStreamInAlternationFinish) {
  // Each MiB is larger than a pipe holds, so reading one stream to its end first would block
  // the tool on the other for ever.
  auto tool = writeScript(dir, "flood",
                          "i=0; while [ $i -lt 50 ]; do"
                          "  head -c 1048576 /dev/zero | tr '\\0' o;"
                          "  head -c 1048576 /dev/zero | tr '\\0' e >&2; i=$((i+1)); done");
  auto data = QVTaskEx::dataFromTask(tool);
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(data->size(), 50u << 20);
  EXPECT_TRUE(std::all_of(data->begin(), data->end(), [](std::uint8_t b) { return b == 'o'; }));
}

// ---- text

TEST_F(QVTaskExTest, NonAsciiOutputIsAbsentAsAsciiButReadsInUtf8AndLatin1) {
  auto tool = writeScript(dir, "cafe", R"(printf 'caf\303\251')");
  EXPECT_EQ(QVTaskEx::stringFromTask(tool), std::nullopt);
  EXPECT_EQ(QVTaskEx::stringFromTask(tool, {}, StringEncoding::UTF8), "caf\u00e9");
  EXPECT_EQ(QVTaskEx::stringFromTask(tool, {}, StringEncoding::ISOLatin1), "caf\u00c3\u00a9");
}

TEST_F(QVTaskExTest, AToolThatCannotRunAnswersAnEmptyString) {
  EXPECT_EQ(QVTaskEx::stringFromTask((dir / "missing").string()), "");
}

TEST(QVTaskExDecode, RejectsMalformedUtf8AndEightBitAscii) {
  EXPECT_EQ(QVTaskEx::decode(bytes(std::string_view("a\0b", 3)), StringEncoding::ASCII),
            std::string("a\0b", 3));
  EXPECT_EQ(QVTaskEx::decode(bytes("\x80"), StringEncoding::ASCII), std::nullopt);
  EXPECT_EQ(QVTaskEx::decode(bytes("\xf0\x9f\x98\x80 ok"), StringEncoding::UTF8),
            "\xf0\x9f\x98\x80 ok");
  for (std::string_view bad :
       {"\xc3", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80", "\xff"}) {
    EXPECT_EQ(QVTaskEx::decode(bytes(bad), StringEncoding::UTF8), std::nullopt)
        << ::testing::PrintToString(std::string(bad));
  }
}

// ---- exit status and refusals

TEST_F(QVTaskExTest, AnswersTheToolsExitStatusAndANonZeroStatusIsNoFailure) {
  auto tool = writeScript(dir, "three", "exit 3");
  EXPECT_EQ(QVTaskEx::terminationCodeFromTask(tool), 3);
  EXPECT_TRUE(QVTaskEx::runTask(tool));
}

TEST_F(QVTaskExTest, ABundleDirectoryIsRefusedAsNotExecutable) {
  auto bundle = dir / "Tibbet.app";
  std::filesystem::create_directories(bundle / "Contents/MacOS");
  ASSERT_TRUE(QVTaskEx::isRunnable(dir.path().string())); // a plain directory passes the check
  EXPECT_FALSE(QVTaskEx::runTask(bundle.string()));
  EXPECT_EQ(QVTaskEx::terminationCodeFromTask(bundle.string()), -1);
  EXPECT_FALSE(QVTaskEx::dataFromTask(bundle.string()).has_value());
  EXPECT_EQ(QVTaskEx::runTaskAndReturn(bundle.string()), nullptr);
  EXPECT_NE(log.text().find("Error: " + bundle.string() + " is not executable"), std::string::npos);
}

TEST_F(QVTaskExTest, AFileWithoutExecutePermissionIsRefusedWithItsMessage) {
  auto tool = writeScript(dir, "plain", "exit 0");
  ::chmod(tool.c_str(), 0644);
  EXPECT_FALSE(QVTaskEx::runTask(tool));
  EXPECT_EQ(QVTaskEx::stringFromTask(tool), "");
  EXPECT_EQ(QVTaskEx::runTaskAndReturn(""), nullptr);
  auto logged = log.text();
  EXPECT_NE(logged.find("Error: " + tool + " is not executable"), std::string::npos);
  EXPECT_NE(logged.find("Error:  is not executable"), std::string::npos);
}

TEST_F(QVTaskExTest, AnExecutableThatIsNoProgramIsReportedAsALaunchException) {
  auto path = dir / "garbage";
  testing::writeText(path, "\x7f"
                           "ELF not really");
  ::chmod(path.c_str(), 0755);
  EXPECT_FALSE(QVTaskEx::runTask(path.string()));
  EXPECT_FALSE(QVTaskEx::dataFromTask(path.string()).has_value());
  EXPECT_EQ(QVTaskEx::terminationCodeFromTask(path.string()), -1);
  EXPECT_NE(log.text().find("Exception running task " + path.string() + ": "), std::string::npos);
}

// ---- what children inherit

TEST_F(QVTaskExTest, ChildrenInheritNoDescriptorButTheStandardStreams) {
  // Deliberately without close-on-exec, as a careless library would open them.
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  int file = ::open((dir / "open-file").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(file, 0);

  auto listed = QVTaskEx::stringFromTask(testing::selfPath(), testing::fakeToolArguments("fds"));
  ::close(file);
  ::close(listener);

  ASSERT_TRUE(listed.has_value());
  std::set<std::string> descriptors;
  std::istringstream lines(*listed);
  for (std::string line; std::getline(lines, line);) {
    descriptors.insert(line);
  }
  EXPECT_EQ(descriptors, (std::set<std::string>{"0", "1", "2"}));
}

TEST_F(QVTaskExTest, ChildrenStartWithDefaultSignalHandlingAndNothingBlocked) {
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  sigset_t blocked, previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);

  auto state = QVTaskEx::stringFromTask(testing::selfPath(), testing::fakeToolArguments("signals"));

  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::sigaction(SIGPIPE, &previous, nullptr);
  ASSERT_TRUE(state.has_value());
  unsigned long long blockedBits = 0, ignoredBits = 0;
  ASSERT_EQ(std::sscanf(state->c_str(), "SigBlk:\t%llx\nSigIgn:\t%llx", &blockedBits, &ignoredBits),
            2)
      << *state;
  EXPECT_EQ(blockedBits, 0u);
  // glibc's posix_spawn leaves its own two internal signals (32 and 33) ignored in the child;
  // no program can name them, and every other signal must be back to its default.
  EXPECT_EQ(ignoredBits & ~0x180000000ull, 0u) << *state;
}

} // namespace
} // namespace kestrin
