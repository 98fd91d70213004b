#include "foundation/CrashReportWriter.h"

#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fixtures/TempDir.h"
#include "foundation/RecentLogLines.h"

namespace kestrin {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using testing::readText;

std::vector<fs::path> reports(const fs::path& folder) {
  std::vector<fs::path> found;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    found.push_back(entry.path());
  }
  std::sort(found.begin(), found.end());
  return found;
}

class CrashReportWriterTest : public ::testing::Test {
protected:
  CrashReportWriter::Facts facts() const {
    return {(dir.path() / "Library/Logs/CrashReporter").string(),
            "Kestrin",
            "com.quorvane.Kestrin",
            "1.0.0 (100)",
            "studio/4\n",
            "/opt/quorvane/Kestrin.app/Contents/MacOS/Kestrin"};
  }

  testing::TempDir dir;
};

TEST_F(CrashReportWriterTest, TheReportNamesSignalAddressVersionFramesAndTheLastLines) {
  CrashReportWriter writer(facts()); // makes the missing folder
  RecentLogLines log;
  log.add("Getting crash logs since date (null)");
  log.add("a line with a\nnew line");
  siginfo_t info{};
  info.si_signo = SIGSEGV;
  info.si_code = SEGV_MAPERR;
  info.si_addr = reinterpret_cast<void*>(0x10);
  ASSERT_TRUE(writer.write(SIGSEGV, &info, nullptr, log));
  ASSERT_TRUE(writer.write(SIGABRT, nullptr, nullptr, log)); // the same second, another file

  auto written = reports(dir.path() / "Library/Logs/CrashReporter");
  ASSERT_EQ(written.size(), 2u);
  // Named as crash detection looks for them; the host's "/" and new line cannot split a path.
  for (const fs::path& report : written) {
    std::string name = report.filename().string();
    EXPECT_TRUE(std::regex_match(
        name, std::regex(R"(Kestrin_\d{4}-\d\d-\d\d-\d{6}_studio_4_(-2)?\.crash)")))
        << name;
    EXPECT_EQ(fs::status(report).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
  }
  std::string text = readText(written[0]) + readText(written[1]);
  EXPECT_THAT(text, HasSubstr("Process:         Kestrin [" + std::to_string(::getpid()) + "]\n"));
  EXPECT_THAT(text, HasSubstr("Identifier:      com.quorvane.Kestrin\n"));
  EXPECT_THAT(text, HasSubstr("Version:         1.0.0 (100)\n"));
  EXPECT_THAT(text, HasSubstr("Exception Type:  SIGSEGV (Segmentation fault)\n"
                              "Exception Codes: SEGV_MAPERR at 0x0000000000000010\n"));
  EXPECT_THAT(text, HasSubstr("Exception Type:  SIGABRT (Abort)\n"));
  // The first frame is the writer itself, named through the test program's exported symbols
  // (under AddressSanitizer the sanitizer's own backtrace() comes before it).
  EXPECT_TRUE(
      std::regex_search(text, std::regex(R"(\n[01]    .*CrashReportWriter.*\[0x[0-9a-f]+\]\n)")))
      << text;
  EXPECT_TRUE(std::regex_search(text, std::regex(R"(\n\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4} - )"
                                                 R"(Getting crash logs since date \(null\)\n)")))
      << text;
  EXPECT_THAT(text, HasSubstr(" - a line with a?new line\n"));
}

TEST_F(CrashReportWriterTest, AFolderThatCannotBeWrittenGivesNoReportAndNoCrash) {
  CrashReportWriter::Facts blocked = facts();
  testing::writeText(dir.path() / "file", "");
  blocked.folder = (dir.path() / "file/CrashReporter").string();
  CrashReportWriter writer(blocked);
  EXPECT_FALSE(writer.write(SIGBUS, nullptr, nullptr, RecentLogLines::shared()));
}

} // namespace
} // namespace kestrin
