// ditto as the agent runs it: the bundle's program in a child process. What it writes is read
// back with independent readers (unzip, Python's zipfile), what they write is extracted with it,
// and hostile archives are crafted byte by byte, lies in their headers included.

#include "ditto/ArchiveExtractor.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fixtures/TempDir.h"
#include "foundation/QVTaskEx.h"

namespace kestrin::ditto {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::TempDir;
using testing::writeText;

// 2021-06-15 12:00:00 UTC: an even second, which a zip's two-second clock can hold.
constexpr std::time_t kSourceTime = 1623758400;

// Prepended to every Python script. raw_zip() writes entries exactly as given: any name, any
// mode, stored or deflated, and a declared size that may lie (a zip64 field past 4 GiB).
constexpr const char* kCrafting = R"(
import os, stat, struct, subprocess, sys, tarfile, zipfile, zlib

def entry(name, data=b'', mode=stat.S_IFREG | 0o644, declared=None, deflate=False):
    return (name, data.encode() if isinstance(data, str) else data, mode, declared, deflate)

def link(name, target):
    return entry(name, target, stat.S_IFLNK | 0o777)

def raw_zip(path, entries):
    out, central = bytearray(), bytearray()
    for name, data, mode, declared, deflate in entries:
        name, body = name.encode(), data
        if deflate:
            packer = zlib.compressobj(9, zlib.DEFLATED, -15)
            body = packer.compress(data) + packer.flush()
        size = len(data) if declared is None else declared
        extra = struct.pack('<HHQ', 1, 8, size) if size >= 0xFFFFFFFF else b''
        size32, version = (0xFFFFFFFF, 45) if extra else (size, 20)
        method, crc, offset = 8 if deflate else 0, zlib.crc32(data), len(out)
        out += struct.pack('<IHHHHHIIIHH', 0x04034b50, version, 0, method, 0, 0x21, crc,
                           len(body), size32, len(name), len(extra)) + name + extra + body
        central += struct.pack('<IHHHHHHIIIHHHHHII', 0x02014b50, 0x300 | version, version, 0,
                               method, 0, 0x21, crc, len(body), size32, len(name), len(extra),
                               0, 0, 0, mode << 16, offset) + name + extra
    count, start = len(entries), len(out)
    out += central
    if count >= 0xFFFF:
        end64 = len(out)
        out += struct.pack('<IQHHIIQQQQ', 0x06064b50, 44, 45, 45, 0, 0, count, count,
                           len(central), start)
        out += struct.pack('<IIQI', 0x07064b50, 0, end64, 1)
    out += struct.pack('<IHHHHIIH', 0x06054b50, 0, 0, min(count, 0xFFFF), min(count, 0xFFFF),
                       len(central), start, 0)
    open(path, 'wb').write(out)

out = sys.argv[1]
)";

struct Run {
  int status = -1;
  std::string output; // standard output, then standard error
};

Run runProgram(const std::string& path, const std::vector<std::string>& arguments) {
  auto captured = QVTaskEx::capturedFromTaskWithInput(path, arguments, {});
  if (!captured) {
    return {};
  }
  return {captured->status, std::string(captured->output.begin(), captured->output.end())};
}

Run ditto(const std::vector<std::string>& arguments) {
  return runProgram(KESTRIN_DITTO, arguments);
}

// `script` after the crafting helpers; `arguments` are sys.argv[1:], the first one `out`.
Run python(const std::string& script, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"-c", std::string(kCrafting) + script});
  return runProgram("/usr/bin/python3", arguments);
}

// Every entry below `root`, hidden ones included, one sorted line each: the path, its mode in
// octal, then a file's time and contents or a link's target.
std::string describeTree(const fs::path& root) {
  std::vector<std::string> lines;
  for (const auto& item : fs::recursive_directory_iterator(root)) {
    struct stat info {};
    ::lstat(item.path().c_str(), &info);
    std::ostringstream line;
    line << fs::relative(item.path(), root).string() << " " << std::oct << info.st_mode << std::dec;
    if (S_ISLNK(info.st_mode)) {
      line << " -> " << fs::read_symlink(item.path()).string();
    } else {
      line << " " << info.st_mtim.tv_sec;
      if (S_ISREG(info.st_mode)) {
        line << " " << readText(item.path());
      }
    }
    lines.push_back(line.str());
  }
  std::sort(lines.begin(), lines.end());
  std::string joined;
  for (const auto& line : lines) {
    joined += line + "\n";
  }
  return joined;
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& item : fs::directory_iterator(folder)) {
    names.push_back(item.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class Ditto : public ::testing::Test {
protected:
  // Files with chosen modes, an empty folder, a non-ASCII name, a compressible file and two
  // links that stay inside; every time set to kSourceTime.
  void SetUp() override {
    writeText(source / "a.txt", "alpha\n");
    writeText(source / "café ü 日本.txt", "non-ASCII name\n");
    writeText(source / "sub" / "run.sh", "#!/bin/sh\necho hi\n");
    std::string log;
    for (int i = 0; i < 5000; ++i) {
      log += "line " + std::to_string(i) + " of a log that compresses well\n";
    }
    writeText(source / "sub" / "big.log", log);
    fs::create_directory(source / "empty");
    fs::create_symlink("sub/run.sh", source / "link");
    fs::create_symlink("../a.txt", source / "sub" / "up");
    for (const auto& item : fs::recursive_directory_iterator(source)) {
      if (!item.is_symlink()) {
        fs::permissions(item.path(), item.is_directory() ? fs::perms(0755) : fs::perms(0644));
      }
    }
    fs::permissions(source / "a.txt", fs::perms(0600));
    fs::permissions(source / "sub" / "run.sh", fs::perms(0755));
    timespec times[2] = {{kSourceTime, 0}, {kSourceTime, 0}};
    for (const auto& item : fs::recursive_directory_iterator(source)) {
      ::utimensat(AT_FDCWD, item.path().c_str(), times, AT_SYMLINK_NOFOLLOW);
    }
  }

  // The archive's names, sorted, one per line.
  std::string listed(const fs::path& archive) {
    return python("print('\\n'.join(sorted(zipfile.ZipFile(out).namelist())))", {archive}).output;
  }

  TempDir scratch;
  fs::path source = scratch / "src";
};

TEST_F(Ditto, OwnArchivesPassUnzipAndPythonAndComeBackWhole) {
  fs::path archive = scratch / "a.zip";
  auto made = ditto({"-c", "-k", "--sequesterRsrc", source, archive});
  ASSERT_EQ(made.status, 0) << made.output;
  EXPECT_EQ(made.output, "");

  auto tested = runProgram("/usr/bin/unzip", {"-tq", archive});
  EXPECT_EQ(tested.status, 0) << tested.output;
  auto read = python(R"(
z = zipfile.ZipFile(out)
assert z.testzip() is None
for i in sorted(z.infolist(), key=lambda i: i.filename):
    mode = i.external_attr >> 16
    shown = '-> ' + z.read(i).decode() if stat.S_ISLNK(mode) else len(z.read(i))
    print(i.filename, oct(stat.S_IMODE(mode)), shown)
)",
                     {archive});
  EXPECT_EQ(read.output, "a.txt 0o600 6\n"
                         "café ü 日本.txt 0o644 15\n"
                         "empty/ 0o755 0\n"
                         "link 0o777 -> sub/run.sh\n"
                         "sub/ 0o755 0\n"
                         "sub/big.log 0o644 198890\n"
                         "sub/run.sh 0o755 18\n"
                         "sub/up 0o777 -> ../a.txt\n");

  auto extracted = ditto({"-x", "-k", archive, scratch / "out"});
  ASSERT_EQ(extracted.status, 0) << extracted.output;
  EXPECT_EQ(describeTree(scratch / "out"), describeTree(source));
}

TEST_F(Ditto, ArchivesFromZipAndPythonExtractWhole) {
  fs::path fromZip = scratch / "zip.zip";
  ASSERT_EQ(python("subprocess.run(['/usr/bin/zip', '-qry', out, 'src'], cwd=sys.argv[2], "
                   "check=True)",
                   {fromZip, scratch.path()})
                .status,
            0);
  auto unzipped = ditto({"-xk", fromZip, scratch / "from-zip"});
  ASSERT_EQ(unzipped.status, 0) << unzipped.output;
  EXPECT_EQ(describeTree(scratch / "from-zip" / "src"), describeTree(source));

  fs::path fromPython = scratch / "python.zip";
  ASSERT_EQ(python(R"(
z = zipfile.ZipFile(out, 'w')
def add(name, data, mode):
    info = zipfile.ZipInfo(name, (2021, 6, 15, 12, 0, 0))
    info.create_system, info.external_attr = 3, mode << 16
    z.writestr(info, data, zipfile.ZIP_DEFLATED)
add('docs/', '', stat.S_IFDIR | 0o750)
add('docs/Ünïcödé ✓.txt', 'UTF-8 name', stat.S_IFREG | 0o640)
add('tool', '#!/bin/sh\n', stat.S_IFREG | 0o755)
add('__MACOSX/._tool', 'resource fork', stat.S_IFREG | 0o644)
z.close()
)",
                   {fromPython})
                .status,
            0);
  fs::path out = scratch / "from-python";
  auto extracted = ditto({"-xk", fromPython, out});
  ASSERT_EQ(extracted.status, 0) << extracted.output;
  EXPECT_EQ(namesIn(out), (std::vector<std::string>{"docs", "tool"}));
  EXPECT_EQ(readText(out / "docs" / "Ünïcödé ✓.txt"), "UTF-8 name");
  EXPECT_EQ(fs::status(out / "docs").permissions(), fs::perms(0750));
  EXPECT_EQ(fs::status(out / "docs" / "Ünïcödé ✓.txt").permissions(), fs::perms(0640));
  EXPECT_EQ(fs::status(out / "tool").permissions(), fs::perms(0755));
  // A zip's own clock is local time, as Python wrote it.
  std::tm local{0, 0, 12, 15, 5, 121, 0, 0, -1, 0, nullptr};
  struct stat info {};
  ASSERT_EQ(::stat((out / "tool").c_str(), &info), 0);
  EXPECT_EQ(info.st_mtim.tv_sec, std::mktime(&local));
}

TEST_F(Ditto, EntryNamesAreRelativeToTheSourceUnlessItsNameIsKept) {
  std::string plain;
  std::string kept = "src/\n";
  for (const char* name : {"a.txt", "café ü 日本.txt", "empty/", "link", "sub/", "sub/big.log",
                           "sub/run.sh", "sub/up"}) {
    plain += std::string(name) + "\n";
    kept += "src/" + std::string(name) + "\n";
  }
  ASSERT_EQ(ditto({"-ck", source, scratch / "plain.zip"}).status, 0);
  EXPECT_EQ(listed(scratch / "plain.zip"), plain);
  ASSERT_EQ(
      ditto({"-c", "-k", "--sequesterRsrc", "--keepParent", source, scratch / "kept.zip"}).status,
      0);
  EXPECT_EQ(listed(scratch / "kept.zip"), kept);

  // A single file goes by its own name, kept parent or not.
  ASSERT_EQ(ditto({"-ck", "--keepParent", source / "a.txt", scratch / "one.zip"}).status, 0);
  EXPECT_EQ(listed(scratch / "one.zip"), "a.txt\n");
  ASSERT_EQ(ditto({"-ck", source / "sub" / "run.sh", scratch / "one.zip"}).status, 0);
  EXPECT_EQ(listed(scratch / "one.zip"), "run.sh\n");
}

TEST_F(Ditto, ExtractingIntoAFolderMergesAndAFailureLeavesTheFolderAsItWas) {
  fs::path folder = scratch / "existing";
  writeText(folder / "keep.txt", "mine");
  writeText(folder / "a.txt", "old");
  writeText(folder / "sub" / "mine.txt", "mine too");
  ASSERT_EQ(ditto({"-ck", source, scratch / "a.zip"}).status, 0);
  auto merged = ditto({"-xk", scratch / "a.zip", folder});
  ASSERT_EQ(merged.status, 0) << merged.output;
  EXPECT_EQ(readText(folder / "keep.txt"), "mine");
  EXPECT_EQ(readText(folder / "a.txt"), "alpha\n");
  EXPECT_EQ(readText(folder / "sub" / "mine.txt"), "mine too");
  EXPECT_EQ(readText(folder / "sub" / "run.sh"), "#!/bin/sh\necho hi\n");

  std::string before = describeTree(folder);
  ASSERT_EQ(python("raw_zip(out, [entry('a.txt', 'new'), entry('../evil.txt', 'bad')])",
                   {scratch / "bad.zip"})
                .status,
            0);
  EXPECT_EQ(ditto({"-xk", scratch / "bad.zip", folder}).status, 1);
  EXPECT_EQ(describeTree(folder), before); // hidden work in progress would show here too
}

TEST_F(Ditto, MalformedCommandsPrintTheUsageAndExit64) {
  std::string archive = scratch / "a.zip";
  std::vector<std::vector<std::string>> malformed = {
      {},
      {"-c"},
      {"-c", source, archive},                       // no -k: not a zip
      {"-k", "-c", source, archive},                 // mode first
      {"-x", "-k", archive},                         // no folder
      {"-ck", source, archive, "extra"},             // one path too many
      {"-ck", "--bogus", source, archive},           // unknown option
      {"-xk", "--keepParent", archive, "out"},       // a compression option
      {"-ck", "--max-bytes=1", source, archive},     // an extraction option
      {"-xk", "--max-entries=many", archive, "out"}, // not a number
  };
  for (const auto& arguments : malformed) {
    auto run = ditto(arguments);
    EXPECT_EQ(run.status, 64) << ::testing::PrintToString(arguments);
    EXPECT_EQ(run.output.rfind("usage: ditto -c -k", 0), 0u) << run.output;
  }
  // Well formed but failing: one line saying why, exit 1, nothing left behind.
  auto missing = ditto({"-ck", scratch / "missing", archive});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.output.find("No such file or directory"), std::string::npos) << missing.output;
  EXPECT_EQ(namesIn(scratch.path()), (std::vector<std::string>{"src"}));
}

struct Hostile {
  const char* name;
  std::string script; // writes the archive to `out`; sys.argv[2] is a folder outside
  std::string expected;
  std::vector<std::string> options = {};
};

TEST_F(Ditto, HostileArchivesAreRefusedAndNothingIsWrittenAnywhere) {
  fs::path outside = scratch / "outside";
  fs::create_directory(outside);
  const std::vector<Hostile> cases = {
      {"dot-dot", "raw_zip(out, [entry('good.txt', 'ok'), entry('../evil.txt', 'bad')])",
       R"("../evil.txt": path with ".." refused)"},
      {"absolute", "raw_zip(out, [entry(sys.argv[2] + '/evil.txt', 'bad')])",
       "/outside/evil.txt\": absolute path refused"},
      {"link-to-etc",
       "raw_zip(out, [link('etc', '/etc'), entry('etc/kestrin-ditto-probe', 'bad')])",
       R"("etc": the link to "/etc" leads outside the destination)"},
      {"link-climbing-out",
       "raw_zip(out, [entry('d/', mode=stat.S_IFDIR | 0o755), "
       "link('d/up', '../../outside')])",
       R"("d/up": the link to "../../outside" leads outside)"},
      // Each link alone stays inside; together a/ leads out through d/s.
      {"chain-of-links",
       "raw_zip(out, [entry('d/', mode=stat.S_IFDIR | 0o755), "
       "link('a', 'd/s/..'), link('d/s', '..')])",
       R"("a": the link to "d/s/.." leads outside)"},
      {"device", "raw_zip(out, [entry('null', mode=stat.S_IFCHR | 0o666)])",
       R"("null": devices, FIFOs and sockets are not extracted)"},
      // A zip has no hard links; a tar that has one is no zip.
      {"hard-link-tar", R"(
with tarfile.open(out, 'w') as t:
    member = tarfile.TarInfo('passwd')
    member.type, member.linkname = tarfile.LNKTYPE, '/etc/passwd'
    t.addfile(member)
)",
       "not a zip archive"},
      {"not-a-zip", "open(out, 'wb').write(b'PK but no zip at all\\n' * 40)", "not a zip archive"},
      {"empty", "zipfile.ZipFile(out, 'w').close()", "the archive holds nothing to extract"},
      // Declares 1000 bytes, inflates to 4 MiB.
      {"bomb",
       "raw_zip(out, [entry('bomb', bytes(4 << 20), declared=1000, deflate=True)])",
       R"("bomb": more than the 1048576 bytes an archive may hold)",
       {"--max-bytes=1048576"}},
      {"ten-gigabytes",
       "raw_zip(out, [entry('huge', bytes(1 << 20), declared=10 << 30, deflate=True)])",
       R"("huge": declares 10737418240 bytes)",
       {"--max-bytes=1048576"}},
      {"many-entries",
       "raw_zip(out, [entry('f%d' % n) for n in range(101)])",
       R"("f100": the archive has more than 100 entries)",
       {"--max-entries=100"}},
  };
  for (const auto& hostile : cases) {
    SCOPED_TRACE(hostile.name);
    fs::path folder = scratch / hostile.name;
    fs::create_directory(folder);
    fs::path archive = folder / "archive";
    ASSERT_EQ(python(hostile.script, {archive, outside}).status, 0);
    std::vector<std::string> arguments = {"-xk"};
    arguments.insert(arguments.end(), hostile.options.begin(), hostile.options.end());
    arguments.insert(arguments.end(), {archive, folder / "out"});

    auto run = ditto(arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output.rfind("ditto: ", 0), 0u) << run.output;
    EXPECT_NE(run.output.find(hostile.expected), std::string::npos) << run.output;
    EXPECT_EQ(namesIn(folder), (std::vector<std::string>{"archive"}));
  }
  EXPECT_TRUE(fs::is_empty(outside));
  EXPECT_FALSE(fs::exists("/etc/kestrin-ditto-probe"));
}

TEST_F(Ditto, TheDefaultEntryLimitHoldsForAnArchiveInMemory) {
  // 100,001 entries that each name the root, so that reaching the limit writes nothing.
  fs::path archive = scratch / "many.zip";
  ASSERT_EQ(
      python("raw_zip(out, [entry('./', mode=stat.S_IFDIR | 0o755)] * 100001)", {archive}).status,
      0);
  std::ifstream in(archive, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  auto extracted = extractZipArchive(std::as_bytes(std::span(bytes)), scratch / "out");
  ASSERT_FALSE(extracted.ok());
  EXPECT_NE(extracted.message().find("more than 100000 entries"), std::string::npos)
      << extracted.message();
  EXPECT_EQ(namesIn(scratch.path()), (std::vector<std::string>{"many.zip", "src"}));
}

} // namespace
} // namespace kestrin::ditto
